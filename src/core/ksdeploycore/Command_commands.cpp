#include "Command_commands.h"

#include "Engine.h"

#include <QFile>

using namespace KsDeploy;

KS_COMMAND_CLASS_DEFINE(Command_commands, "commands")

const char* const Command_commands::sHelpMessageBrief =
    "Define a stream where additional commands have to be retrieved from.\n"
    "One can use this feature if the command line would get too long.\n"
    "In the stream the arguments have to be separated by a new-line.\n";

const char* const Command_commands::sHelpMessageAttributes =
    "       attribute   : file\n"
    "       occurrence  : once (optional)\n"
    "       values      : String\n"
    "       default     : \n"
    "           This attribute specifies the filepath of a file that has to be.\n"
    "           parsed for more commands to execute\n";

McResult Command_commands::execute() { return McResult(); }

McResult Command_commands::getArguments(QList<QString>& outArguments)
{
    QList<int> lines;
    return getArguments(outArguments, lines);
}

McResult Command_commands::getArguments(QList<QString>& outArguments, QList<int>& outLines)
{
    outArguments.clear();
    outLines.clear();
    MC_REQUIRE(Engine::instanceAvailable());
    McResult retVal;
    McHandle<Attribute> attribute;
    retVal << attribute1(attribute, QStringLiteral("file"), false);
    if (retVal.isBad())
        return retVal;
    const QString path = attribute.isNotNull() ? attribute->value() : QString();
    QFile file(path);
    if (MC_CHECK(retVal, file.open( QIODevice::ReadOnly ), path))
        return retVal;
    QByteArray bytes;
    for (;;)
    {
        const QByteArray line = file.readLine();
        if (line.isEmpty())
            break;
        bytes += line;
        if (!line.endsWith('\n'))
            bytes += '\n';
    }
    file.close();
    argumentsFromBytes(bytes, outArguments, outLines);
    return retVal;
}

void Command_commands::argumentsFromBytes(const QByteArray& inBytes, QList<QString>& outArguments, QList<int>& outLines)
{
    outArguments.clear();
    outLines.clear();
    int lineNumber = 0;
    qsizetype start = 0;
    while (start < inBytes.size())
    {
        qsizetype end = inBytes.indexOf('\n', start);
        if (end < 0)
            end = inBytes.size();
        ++lineNumber;
        // One argument per line, never split at blanks.
        const QString argument = QString::fromLatin1(inBytes.mid(start, end - start)).trimmed();
        if (!argument.isEmpty())
        {
            outArguments.append(argument);
            outLines.append(lineNumber);
        }
        start = end + 1;
    }
}

QString Command_commands::streamPath() const
{
    McDArray<McHandle<Attribute>> found;
    attributes(found, QStringLiteral("file"));
    return found.size() == 1 ? found[0]->value() : QString();
}
