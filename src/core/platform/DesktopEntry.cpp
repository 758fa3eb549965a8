// Freedesktop desktop entries that start a program, and the shell-rule command-line splitter.
// Portable code.
#include "Shortcut.h"

#include <cerrno>
#include <cstring>
#include <sstream>

namespace KsPlatform
{
namespace
{
// The original argument text, kept so that it reads back exactly (Exec holds it re-quoted).
const char* const sArgumentsKey = "X-KsDeploy-Arguments";

// The escapes of a string value: \s \n \t \r \\.
std::string escapeValue(const std::string& inText)
{
    std::string out;
    for (size_t i = 0; i < inText.size(); ++i)
    {
        const char c = inText[i];
        switch (c)
        {
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\t':
            out += "\\t";
            break;
        case '\r':
            out += "\\r";
            break;
        case ' ':
            out += i == 0 ? "\\s" : " ";
            break;  // a leading blank would be dropped
        default:
            out += c;
        }
    }
    return out;
}

std::string unescapeValue(const std::string& inText)
{
    std::string out;
    for (size_t i = 0; i < inText.size(); ++i)
    {
        const char c = inText[i];
        if (c != '\\' || i + 1 >= inText.size())
        {
            out += c;
            continue;
        }
        const char n = inText[++i];
        switch (n)
        {
        case 's':
            out += ' ';
            break;
        case 'n':
            out += '\n';
            break;
        case 't':
            out += '\t';
            break;
        case 'r':
            out += '\r';
            break;
        case '\\':
            out += '\\';
            break;
        default:
            out += '\\';
            out += n;
        }
    }
    return out;
}

// One argument of Exec: quoted when it holds a reserved character; '%' doubled.
std::string quoteExecArgument(const std::string& inArg)
{
    static const char* const sReserved = " \t\n\"'\\><~|&;$*?#()`";
    bool quote = inArg.empty() || inArg.find_first_of(sReserved) != std::string::npos;
    std::string out;
    for (const char c : inArg)
    {
        if (c == '%')
            out += "%%";
        else if (quote && (c == '"' || c == '`' || c == '$' || c == '\\'))
            out += std::string("\\") + c;
        else
            out += c;
    }
    return quote ? "\"" + out + "\"" : out;
}

// Splits an Exec value (after unescaping) into its arguments.
bool splitExec(const std::string& inExec, std::vector<std::string>& outArgs)
{
    std::vector<std::string> args;
    std::string current;
    bool inWord = false;
    for (size_t i = 0; i < inExec.size(); ++i)
    {
        const char c = inExec[i];
        if (c == ' ' || c == '\t' || c == '\n')
        {
            if (inWord)
                args.push_back(current);
            current.clear();
            inWord = false;
            continue;
        }
        inWord = true;
        if (c == '"')
        {
            bool closed = false;
            for (++i; i < inExec.size(); ++i)
            {
                const char q = inExec[i];
                if (q == '"')
                {
                    closed = true;
                    break;
                }
                if (q == '\\' && i + 1 < inExec.size() && std::strchr("\"`$\\", inExec[i + 1]))
                    current += inExec[++i];
                else if (q == '%' && i + 1 < inExec.size() && inExec[i + 1] == '%')
                    current += inExec[++i];
                else
                    current += q;
            }
            if (!closed)
                return false;
        }
        else if (c == '%' && i + 1 < inExec.size() && inExec[i + 1] == '%')
        {
            current += inExec[++i];
        }
        else
        {
            current += c;
        }
    }
    if (inWord)
        args.push_back(current);
    outArgs.swap(args);
    return true;
}

// Joins words into a command line that commandLineSplit splits back into the same words.
std::string joinCommandLine(const std::vector<std::string>& inWords, size_t inFirst)
{
    std::string out;
    for (size_t i = inFirst; i < inWords.size(); ++i)
    {
        const std::string& w = inWords[i];
        if (!out.empty())
            out += ' ';
        if (!w.empty() && w.find_first_of(" \t\n\"'\\$`") == std::string::npos)
        {
            out += w;
            continue;
        }
        out += '\'';
        for (const char c : w)
            out += c == '\'' ? std::string("'\\''") : std::string(1, c);
        out += '\'';
    }
    return out;
}
}

bool commandLineSplit(const std::string& inCommandLine, std::vector<std::string>& outWords)
{
    std::vector<std::string> words;
    std::string current;
    bool inWord = false;
    char quote = 0;
    for (size_t i = 0; i < inCommandLine.size(); ++i)
    {
        const char c = inCommandLine[i];
        if (quote == '\'')
        {
            if (c == '\'')
                quote = 0;
            else
                current += c;
            continue;
        }
        if (quote == '"')
        {
            if (c == '"')
                quote = 0;
            else if (c == '\\' && i + 1 < inCommandLine.size() && std::strchr("\"\\$`", inCommandLine[i + 1]))
                current += inCommandLine[++i];
            else
                current += c;
            continue;
        }
        if (c == ' ' || c == '\t' || c == '\n' || c == '\r')
        {
            if (inWord)
                words.push_back(current);
            current.clear();
            inWord = false;
            continue;
        }
        inWord = true;
        if (c == '\'' || c == '"')
            quote = c;
        else if (c == '\\' && i + 1 < inCommandLine.size())
            current += inCommandLine[++i];
        else
            current += c;
    }
    if (quote)
        return false;
    if (inWord)
        words.push_back(current);
    outWords.swap(words);
    return true;
}

std::string desktopEntryEncode(const ShortcutData& inData, const std::string& inName)
{
    std::vector<std::string> args;
    if (!commandLineSplit(inData.arguments, args))
        args.assign(1, inData.arguments);  // an unbalanced quote: pass the text as one argument
    std::string exec = quoteExecArgument(inData.target);
    for (const std::string& a : args)
        exec += " " + quoteExecArgument(a);

    std::string out = "[Desktop Entry]\nType=Application\n";
    out += "Name=" + latin1ToUtf8(escapeValue(inName.empty() ? std::string("Program") : inName)) + "\n";
    if (!inData.description.empty())
        out += "Comment=" + latin1ToUtf8(escapeValue(inData.description)) + "\n";
    out += "Exec=" + latin1ToUtf8(escapeValue(exec)) + "\n";
    if (!inData.workingDirectory.empty())
        out += "Path=" + latin1ToUtf8(escapeValue(inData.workingDirectory)) + "\n";
    if (!inData.arguments.empty())
        out += std::string(sArgumentsKey) + "=" + latin1ToUtf8(escapeValue(inData.arguments)) + "\n";
    return out;
}

Status desktopEntryDecode(const std::string& inText, ShortcutData& outData)
{
    std::istringstream in(inText);
    std::string line;
    bool inMain = false;
    bool seenMain = false;
    bool hasExec = false;
    std::string exec;
    std::string keptArguments;
    bool hasKeptArguments = false;
    ShortcutData data;
    while (std::getline(in, line))
    {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.empty() || line[0] == '#')
            continue;
        if (line[0] == '[')
        {
            inMain = line == "[Desktop Entry]";
            seenMain = seenMain || inMain;
            continue;
        }
        if (!inMain)
            continue;
        const size_t eq = line.find('=');
        if (eq == std::string::npos)
            continue;
        std::string key = line.substr(0, eq);
        while (!key.empty() && key.back() == ' ')
            key.pop_back();
        size_t valueAt = eq + 1;
        while (valueAt < line.size() && line[valueAt] == ' ')
            ++valueAt;
        std::string value;
        if (!utf8ToLatin1(unescapeValue(line.substr(valueAt)), value))
            value = unescapeValue(line.substr(valueAt));
        if (key == "Exec")
        {
            exec = value;
            hasExec = true;
        }
        else if (key == "Comment")
        {
            data.description = value;
        }
        else if (key == "Path")
        {
            data.workingDirectory = value;
        }
        else if (key == sArgumentsKey)
        {
            keptArguments = value;
            hasKeptArguments = true;
        }
    }
    if (!seenMain || !hasExec)
        return Status::bad(EINVAL, "not a desktop entry that starts a program (no [Desktop Entry] group with Exec)");
    std::vector<std::string> args;
    if (!splitExec(exec, args) || args.empty())
        return Status::bad(EINVAL, "a desktop entry with a malformed Exec line: " + exec);
    data.target = args[0];
    // The kept text counts only while it still says what Exec says.
    std::vector<std::string> kept;
    if (hasKeptArguments && commandLineSplit(keptArguments, kept) &&
        kept == std::vector<std::string>(args.begin() + 1, args.end()))
        data.arguments = keptArguments;
    else
        data.arguments = joinCommandLine(args, 1);
    outData = data;
    return Status::ok();
}
}
