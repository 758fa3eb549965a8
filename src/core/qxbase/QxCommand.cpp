#include "QxCommand.h"

#include <QCoreApplication>
#include <QMap>

#include <cstdio>

using namespace QxBase;

namespace
{
QMap<QString, Command::Factory>& factories()
{
    static QMap<QString, Command::Factory> sFactories;
    return sFactories;
}

// What each command name takes, read once from its attribute text; emptied when a factory is
// registered, so a late registration is seen.
struct DeclaredAttributes
{
    bool mFree = false;
    QStringList mNames;
};
QMap<QString, DeclaredAttributes>& declaredAttributes()
{
    static QMap<QString, DeclaredAttributes> sDeclared;
    return sDeclared;
}

// A stream can name itself; this bounds the expansion instead of recursing forever.
constexpr int sMaxExpansions = 1000;

bool isCommandWord(const QString& inArgument) { return inArgument.startsWith(QLatin1String("--")); }

std::string latin1(const QString& inText)
{
    const QByteArray bytes = inText.toLatin1();
    return std::string(bytes.constData(), static_cast<size_t>(bytes.size()));
}

void appendText(QString& inoutText, const char* inText)
{
    inoutText += QString::fromLatin1(inText);
    if (!inoutText.endsWith(QLatin1Char('\n')))
        inoutText += QLatin1Char('\n');
}
}

McResult Command::executeEarly() const { return McResult(); }

McResult Command::execute() { return McResult(); }

void Command::registerFactory(const QString& inName, Factory inFactory)
{
    MC_REQUIRE(!inName.isEmpty());
    MC_REQUIRE(inFactory != nullptr);
    factories().insert(inName, inFactory);
    declaredAttributes().clear();
}

bool Command::isRegistered(const QString& inName) { return factories().contains(inName); }

McHandle<Command> Command::create(const QString& inName)
{
    const Factory factory = factories().value(inName, nullptr);
    return factory ? factory() : McHandle<Command>();
}

QStringList Command::registeredNames() { return factories().keys(); }

QStringList Command::attributeNamesDeclared(const char* inHelpMessageAttributes)
{
    static const QLatin1String sTag("attribute   :");
    QStringList names;
    if (!inHelpMessageAttributes)
        return names;
    const QStringList lines = QString::fromLatin1(inHelpMessageAttributes).split(QLatin1Char('\n'));
    for (const QString& line : lines)
    {
        const QString trimmed = line.trimmed();
        if (trimmed.startsWith(sTag))
        {
            const QString name = trimmed.mid(sTag.size()).trimmed();
            if (!name.isEmpty() && !names.contains(name))
                names.append(name);
        }
    }
    return names;
}

bool Command::attributeIsAccepted(const QString& inCommandName, const QString& inAttributeName)
{
    // Parsed once per command name: a command line may hold thousands of attributes.
    QMap<QString, DeclaredAttributes>& declared = declaredAttributes();
    auto found = declared.find(inCommandName);
    if (found == declared.end())
    {
        const McHandle<Command> command = create(inCommandName);
        if (command.isNull())
            return false;
        DeclaredAttributes entry;
        entry.mFree = command->attributesAreFree();
        entry.mNames = attributeNamesDeclared(command->helpMessageAttributes());
        found = declared.insert(inCommandName, entry);
    }
    return found->mFree || found->mNames.contains(inAttributeName);
}

McResult Command::attribute1(McHandle<Attribute>& outAttribute, QString inName, bool inRequired) const
{
    McResult retVal;
    outAttribute = McHandle<Attribute>();
    McDArray<McHandle<Attribute>> found;
    attributes(found, inName);
    if (MC_CHECK(retVal, found.size() <= 1,
                 QStringLiteral("attribute '%1' of command '--%2' is given more than once").arg(inName, name())))
        return retVal;
    if (found.size() == 1)
        outAttribute = found[0];
    else
        MC_CHECK(retVal, !inRequired,
                 QStringLiteral("command '--%1' requires the attribute '%2'").arg(name(), inName));
    return retVal;
}

void Command::attributes(McDArray<McHandle<Attribute>>& outAttributes, QString inName) const
{
    outAttributes = McDArray<McHandle<Attribute>>();
    for (const McHandle<Attribute>& attribute : mAttributes)
        if (inName.isEmpty() || attribute->name() == inName)
            outAttributes.append(attribute);
}

void Command::attributeAdd(const QString& inName, const QString& inValue)
{
    mAttributes.append(McHandle<Attribute>(new Attribute(inName, inValue)));
}

QString Command::usage(const QString& inCommandName, bool inShow)
{
    QString text;
    const McHandle<Command> command = inCommandName.isEmpty() ? McHandle<Command>() : create(inCommandName);
    if (command.isNotNull())
    {
        text = QStringLiteral("--%1\n").arg(command->name());
        appendText(text, command->helpMessageBrief());
        const QString attributes = QString::fromLatin1(command->helpMessageAttributes());
        if (!attributes.isEmpty())
            text += QLatin1Char('\n') + attributes;
    }
    else
    {
        if (!inCommandName.isEmpty())
            text = QStringLiteral("Unknown command '%1'.\n\n").arg(inCommandName);
        text += QStringLiteral("Usage: %1 --COMMAND [NAME=VALUE ...] [--COMMAND [NAME=VALUE ...] ...]\n"
                               "Commands run in the order given. '--help command=COMMAND' describes one "
                               "command.\n\nCommands:\n")
                    .arg(QCoreApplication::applicationName().isEmpty() ? QStringLiteral("ksdeploy")
                                                                       : QCoreApplication::applicationName());
        for (const QString& name : registeredNames())
        {
            const McHandle<Command> each = create(name);
            text += QStringLiteral("\n--%1\n").arg(name);
            // The brief texts are free text; indent every line so the command names stand out.
            const QStringList lines = QString::fromLatin1(each->helpMessageBrief()).split(QLatin1Char('\n'));
            for (const QString& line : lines)
                if (!line.isEmpty())
                    text += QStringLiteral("    ") + line + QLatin1Char('\n');
        }
    }
    if (inShow)
    {
        const std::string bytes = latin1(text);
        std::fwrite(bytes.data(), 1, bytes.size(), stdout);
        std::fflush(stdout);
    }
    return text;
}

QString CommandLine::syntaxCheck(const QList<QString>& inArguments, bool inIsContinuation, const QStringList& inOrigins,
                                 int* outCheckedEnd)
{
    if (outCheckedEnd)
        *outCheckedEnd = static_cast<int>(inArguments.size());
    QString command;
    for (int i = 0; i < inArguments.size(); ++i)
    {
        const QString& argument = inArguments[i];
        QString problem;
        if (isCommandWord(argument))
        {
            if (outCheckedEnd && !command.isEmpty())
            {
                const McHandle<Command> previous = Command::create(command);
                if (previous.isNotNull() && previous->registersCommands())
                {
                    *outCheckedEnd = i;
                    return QString();
                }
            }
            command = argument.mid(2);
            if (!Command::isRegistered(command))
                problem = QStringLiteral("unknown command '%1'").arg(argument);
        }
        else if (command.isEmpty() && !inIsContinuation)
            problem = QStringLiteral("argument '%1' comes before the first command").arg(argument);
        else if (command.isEmpty())
            problem = QStringLiteral("argument '%1' of a command stream comes before its first command").arg(argument);
        else if (!argument.contains(QLatin1Char('=')))
            problem =
                QStringLiteral("attribute '%1' of command '--%2' is not of the form name=value").arg(argument, command);
        else
        {
            const QString name = argument.left(static_cast<int>(argument.indexOf(QLatin1Char('='))));
            if (!Command::attributeIsAccepted(command, name))
                problem = QStringLiteral("unknown attribute '%1' of command '--%2'").arg(name, command);
        }
        if (!problem.isEmpty())
        {
            if (i < inOrigins.size() && !inOrigins[i].isEmpty())
                problem += QStringLiteral(" (%1)").arg(inOrigins[i]);
            return problem;
        }
    }
    return QString();
}

CommandLine::Outcome CommandLine::run(const QList<QString>& inArguments)
{
    // Checked up to checkedEnd; what follows a plugin is checked once the plugin has registered
    // its commands, still before any command's execute runs.
    int checkedEnd = 0;
    mSyntaxError = syntaxCheck(inArguments, false, QStringList(), &checkedEnd);
    if (!mSyntaxError.isEmpty())
        return OutcomeSyntaxError;

    QList<QString> pending = inArguments;
    int expansions = 0;
    int next = 0;
    while (next < pending.size())
    {
        if (next >= checkedEnd)
        {
            int end = 0;
            mSyntaxError = syntaxCheck(pending.mid(next), true, QStringList(), &end);
            if (!mSyntaxError.isEmpty())
                return OutcomeSyntaxError;
            checkedEnd = next + end;
        }
        const McHandle<Command> command = Command::create(pending[next].mid(2));
        ++next;
        for (; next < pending.size() && !isCommandWord(pending[next]); ++next)
        {
            const int equals = static_cast<int>(pending[next].indexOf(QLatin1Char('=')));
            command->attributeAdd(pending[next].left(equals), pending[next].mid(equals + 1));
        }
        mCommands.append(command);

        mResult = command->executeEarly();
        if (mResult.isBad())
            return OutcomeFailed;

        if (mExpander)
        {
            bool expanded = false;
            QList<QString> more;
            QStringList origins;
            mResult = mExpander(command, expanded, more, origins);
            if (mResult.isBad())
                return OutcomeFailed;
            if (expanded)
            {
                int moreEnd = 0;
                mSyntaxError = syntaxCheck(more, true, origins, &moreEnd);
                if (mSyntaxError.isEmpty() && ++expansions > sMaxExpansions)
                    mSyntaxError = QStringLiteral("command streams expand more than %1 times; does a stream "
                                                  "name itself?")
                                       .arg(sMaxExpansions);
                if (!mSyntaxError.isEmpty())
                    return OutcomeSyntaxError;
                for (int i = 0; i < more.size(); ++i)
                    pending.insert(next + i, more[i]);
                checkedEnd = moreEnd < more.size() ? next + moreEnd : checkedEnd + static_cast<int>(more.size());
            }
        }
    }

    for (const McHandle<Command>& command : mCommands)
    {
        mResult = command->execute();
        if (mResult.isBad())
            return OutcomeFailed;
    }
    mResult = McResult();
    return OutcomeOk;
}
