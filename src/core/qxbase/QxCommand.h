#pragma once
// Command-line commands: each command is a class registered by name; the command line is a
// sequence of "--name" words, each followed by its name=value attributes.
#include "QxGlobal.h"

#include <QList>
#include <QString>

#include <functional>

namespace QxBase
{
class Command : public McHandable
{
public:
    // One name=value argument of a command.
    class Attribute : public McHandable
    {
    public:
        Attribute(const QString& inName, const QString& inValue) : mName(inName), mValue(inValue) {}
        QString name() const { return mName; }
        QString value() const { return mValue; }

    private:
        QString mName;
        QString mValue;
    };

    using Factory = McHandle<Command> (*)();

    virtual QString name() const = 0;
    virtual const char* helpMessageBrief() = 0;
    virtual const char* helpMessageAttributes() = 0;
    virtual McResult executeEarly() const;
    virtual McResult execute();
    // A command whose attributes are free names (the configuration values) says so; every
    // other command takes only the attributes its attribute text declares.
    virtual bool attributesAreFree() const { return false; }
    // A command whose executeEarly may register further commands (a plugin) says so: the
    // arguments after it are checked only once it has run.
    virtual bool registersCommands() const { return false; }

    static void registerFactory(const QString& inName, Factory inFactory);
    static bool isRegistered(const QString& inName);
    // A new command of that name, null when none is registered.
    static McHandle<Command> create(const QString& inName);
    static QStringList registeredNames();
    // The attribute names declared by a help text's "attribute   : NAME" lines, in text order.
    static QStringList attributeNamesDeclared(const char* inHelpMessageAttributes);
    // Whether the registered command of that name takes an attribute of that name.
    static bool attributeIsAccepted(const QString& inCommandName, const QString& inAttributeName);

    // The one attribute of that name. Absent: a failure when required, else success and null.
    // Given more than once: a failure naming the attribute.
    McResult attribute1(McHandle<Attribute>& outAttribute, QString inName, bool inRequired) const;
    // All attributes of that name; the empty name gives every attribute, in command-line order.
    void attributes(McDArray<McHandle<Attribute>>& outAttributes, QString inName) const;
    void attributeAdd(const QString& inName, const QString& inValue);

    // The help text of the named command ("--name", brief text, attribute text), or for an empty
    // or unknown name the list of every command with its brief text. Written to standard output
    // when inShow is true.
    static QString usage(const QString& inCommandName, bool inShow);

protected:
    Command() = default;
    Command(const Command&) = default;
    Command& operator=(const Command&) = default;
    ~Command() override = default;

private:
    McDArray<McHandle<Attribute>> mAttributes;
};

// Parses and runs a command line. Kept apart from Command so that the host decides how a
// command that supplies further arguments (a command stream) is expanded.
class CommandLine
{
public:
    enum Outcome
    {
        OutcomeOk,
        // The arguments are not a command line: nothing was run, syntaxError() says why.
        OutcomeSyntaxError,
        // A command's executeEarly or execute returned a bad result; later commands did not run.
        OutcomeFailed
    };

    // Called after each command's executeEarly; sets outExpanded and fills outArguments when the
    // command supplies arguments that are to be read as if they followed it. outOrigins may name,
    // per argument, where it was read (a file and line) for the messages about it.
    using Expander = std::function<McResult(const McHandle<Command>& inCommand, bool& outExpanded,
                                            QList<QString>& outArguments, QStringList& outOrigins)>;

    explicit CommandLine(Expander inExpander = Expander()) : mExpander(std::move(inExpander)) {}

    // The first problem that makes the arguments no command line, or the empty text: an unknown
    // command, an argument before the first command, an attribute without "=" or one that its
    // command does not take. With inOrigins (one per argument) the message says where the
    // argument was read. With outCheckedEnd, the check stops at the first command word that
    // follows a command that registers commands, and outCheckedEnd is its index (else the size).
    static QString syntaxCheck(const QList<QString>& inArguments, bool inIsContinuation,
                               const QStringList& inOrigins = QStringList(), int* outCheckedEnd = nullptr);

    Outcome run(const QList<QString>& inArguments);
    QString syntaxError() const { return mSyntaxError; }
    // The bad result that stopped the run (OutcomeFailed), else success.
    const McResult& result() const { return mResult; }
    // The commands parsed so far, in command-line order.
    const McDArray<McHandle<Command>>& commands() const { return mCommands; }

private:
    Expander mExpander;
    QString mSyntaxError;
    McResult mResult;
    McDArray<McHandle<Command>> mCommands;
};
}
