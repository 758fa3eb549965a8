#pragma once
// What the command-line parser must hold for any command stream: no crash, arguments that are
// trimmed non-empty lines in order, and a stream it accepts only when every attribute is one its
// command takes. Shared by the fuzz target and the unit test that replays fuzz/regressions.
#include "Command_commands.h"
#include "QxCommand.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <string>

namespace KsFuzz
{
// The empty text when the input passes, else what went wrong. The engine's commands must be
// registered (commandsRegisterAll).
inline std::string checkCommandStream(const QByteArray& inBytes)
{
    QList<QString> arguments;
    QList<int> lines;
    KsDeploy::Command_commands::argumentsFromBytes(inBytes, arguments, lines);
    if (arguments.size() != lines.size())
        return "one line number per argument";
    int previous = 0;
    for (int i = 0; i < arguments.size(); ++i)
    {
        if (arguments[i].isEmpty() || arguments[i] != arguments[i].trimmed() || arguments[i].contains('\n'))
            return "argument " + std::to_string(i) + " is not one trimmed line";
        if (lines[i] <= previous)
            return "line numbers do not increase";
        previous = lines[i];
    }
    QStringList origins;
    for (const int line : lines)
        origins << QStringLiteral("stream, line %1").arg(line);
    for (const bool continuation : {true, false})
    {
        const QString problem = QxBase::CommandLine::syntaxCheck(arguments, continuation, origins);
        if (!problem.isEmpty())
        {
            if (problem.contains('\n'))
                return "a usage message of more than one line";
            continue;
        }
        // Accepted: build the commands as the parser does; every attribute must be declared.
        McHandle<QxBase::Command> command;
        for (const QString& argument : arguments)
        {
            if (argument.startsWith(QLatin1String("--")))
            {
                command = QxBase::Command::create(argument.mid(2));
                if (command.isNull())
                    return "an accepted command word names no command";
                continue;
            }
            if (command.isNull())
                return "an accepted stream has an argument before its first command";
            const int equals = static_cast<int>(argument.indexOf(QLatin1Char('=')));
            if (equals < 0)
                return "an accepted attribute without '='";
            const QString name = argument.left(equals);
            if (!command->attributesAreFree() &&
                !QxBase::Command::attributeNamesDeclared(command->helpMessageAttributes()).contains(name))
                return "an accepted attribute that its command does not declare";
            command->attributeAdd(name, argument.mid(equals + 1));
            McHandle<QxBase::Command::Attribute> found;
            (void)command->attribute1(found, name, false);
        }
    }
    return std::string();
}
}
