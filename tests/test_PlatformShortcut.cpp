// Shortcut files of the platform layer: shell links and desktop entries, written and read back.
#include "Shortcut.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>

using namespace KsPlatform;

namespace
{
std::string scratch()
{
    static int sCounter = 0;
    const char* tmp = std::getenv("TMPDIR");
    const std::string dir = std::string(tmp ? tmp : "/tmp") + "/shortcut-test-" + std::to_string(++sCounter);
    mkdir(dir.c_str(), 0755);
    return dir;
}

std::string fileBytes(const std::string& inPath)
{
    std::ifstream in(inPath, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeBytes(const std::string& inPath, const std::string& inBytes)
{
    std::ofstream out(inPath, std::ios::binary | std::ios::trunc);
    out << inBytes;
}

int entries(const std::string& inDir)
{
    int n = 0;
    DIR* d = opendir(inDir.c_str());
    while (dirent* e = readdir(d))
        n += std::string(e->d_name) != "." && std::string(e->d_name) != "..";
    closedir(d);
    return n;
}

std::uint32_t u32(const std::string& inBytes, size_t at)
{
    std::uint32_t v = 0;
    for (int i = 3; i >= 0; --i)
        v = (v << 8) | static_cast<unsigned char>(inBytes[at + i]);
    return v;
}
}

TEST(PlatformShortcut, KindFollowsTheExtension)
{
    EXPECT_EQ(ShortcutKind::ShellLink, shortcutKind("/a/Start App.LNK"));
    EXPECT_EQ(ShortcutKind::DesktopEntry, shortcutKind("/a/app.desktop"));
    EXPECT_EQ(ShortcutKind::Unknown, shortcutKind("/a/app.url"));
    EXPECT_EQ(ShortcutKind::Unknown, shortcutKind("lnk"));
}

TEST(PlatformShortcut, ShellLinkHasThePublishedLayoutAndReadsBack)
{
    ShortcutData in;
    in.target = "/opt/My App/bin/caf\xE9";
    in.arguments = "--open \"a file.txt\"";
    in.description = "Starts the caf\xE9 program";
    in.workingDirectory = "/opt/My App";
    ShortcutTargetFacts facts;
    facts.size = 1234;
    facts.writeTime = 0;  // 1970-01-01 is 116444736000000000 in file time
    const std::string bytes = shellLinkEncode(in, facts);

    ASSERT_GT(bytes.size(), 0x4Cu);
    EXPECT_EQ(0x4Cu, u32(bytes, 0));
    EXPECT_EQ(std::string("\x01\x14\x02\x00\x00\x00\x00\x00\xC0\x00\x00\x00\x00\x00\x00\x46", 16), bytes.substr(4, 16));
    // Link info, name, working directory and arguments; single-byte strings (no IsUnicode).
    EXPECT_EQ(0x02u | 0x04u | 0x10u | 0x20u, u32(bytes, 20));
    EXPECT_EQ(116444736000000000ull, u32(bytes, 44) | (static_cast<std::uint64_t>(u32(bytes, 48)) << 32));
    EXPECT_EQ(1234u, u32(bytes, 52));
    const std::uint32_t linkInfoSize = u32(bytes, 0x4C);
    EXPECT_EQ(in.target, std::string(bytes.c_str() + 0x4C + u32(bytes, 0x4C + 16)));
    // The string data follows: a 16-bit count and the bytes of the description.
    const size_t strings = 0x4C + linkInfoSize;
    EXPECT_EQ(in.description.size(), static_cast<size_t>(static_cast<unsigned char>(bytes[strings])));
    EXPECT_EQ(in.description, bytes.substr(strings + 2, in.description.size()));
    EXPECT_EQ(std::string(4, '\0'), bytes.substr(bytes.size() - 4));

    ShortcutData out;
    ASSERT_TRUE(shellLinkDecode(bytes, out).isOk());
    EXPECT_EQ(in.target, out.target);
    EXPECT_EQ(in.arguments, out.arguments);
    EXPECT_EQ(in.description, out.description);
    EXPECT_EQ(in.workingDirectory, out.workingDirectory);

    // Optional parts stay out when empty.
    ShortcutData bare;
    bare.target = "/bin/true";
    const std::string bareBytes = shellLinkEncode(bare, facts);
    EXPECT_EQ(0x02u, u32(bareBytes, 20));
    ASSERT_TRUE(shellLinkDecode(bareBytes, out).isOk());
    EXPECT_EQ("/bin/true", out.target);
    EXPECT_EQ("", out.description);
}

TEST(PlatformShortcut, ShellLinkDecoderRejectsEveryTruncationAndReadsTheUnicodeForm)
{
    ShortcutData in;
    in.target = "/usr/bin/tool";
    in.arguments = "-x";
    in.description = "d";
    in.workingDirectory = "/tmp";
    const std::string bytes = shellLinkEncode(in, ShortcutTargetFacts());
    ShortcutData out;
    // Every cut before the terminal block loses a part the flags promise.
    for (size_t n = 0; n + 4 < bytes.size(); ++n)
        EXPECT_TRUE(shellLinkDecode(bytes.substr(0, n), out).isBad()) << n;
    std::string wrongClsid = bytes;
    wrongClsid[4] = 0x02;
    EXPECT_TRUE(shellLinkDecode(wrongClsid, out).isBad());

    // A link written by the wide interface: IsUnicode, an id list to skip, relative path only.
    std::string wide = bytes.substr(0, 0x4C);
    const std::uint32_t flags = 0x01 | 0x04 | 0x08 | 0x80;
    for (int i = 0; i < 4; ++i)
        wide[20 + i] = static_cast<char>((flags >> (8 * i)) & 0xFF);
    wide += std::string("\x04\x00" "abcd", 6);
    const auto putWide = [&wide](const std::u16string& inText) {
        wide += static_cast<char>(inText.size());
        wide += '\0';
        for (char16_t c : inText)
        {
            wide += static_cast<char>(c & 0xFF);
            wide += static_cast<char>(c >> 8);
        }
    };
    putWide(u"caf\u00e9 \u4e2d");
    putWide(u"..\\bin\\tool.exe");
    wide += std::string(4, '\0');
    ASSERT_TRUE(shellLinkDecode(wide, out).isOk());
    EXPECT_EQ("caf\xE9 ?", out.description);
    EXPECT_EQ("..\\bin\\tool.exe", out.target);
}

TEST(PlatformShortcut, DesktopEntryQuotesExecAndReadsBackExactly)
{
    ShortcutData in;
    in.target = "/opt/My App/bin/run";
    in.arguments = "--name \"two words\" 100% back\\\\slash '$HOME' \"\"";
    in.description = "Caf\xE9 tool\nsecond line";
    in.workingDirectory = "/opt/My App";
    const std::string text = desktopEntryEncode(in, "My Tool");

    EXPECT_NE(std::string::npos, text.find("[Desktop Entry]\nType=Application\nName=My Tool\n"));
    EXPECT_NE(std::string::npos, text.find("Comment=Caf\xC3\xA9 tool\\nsecond line\n")) << text;
    // Reserved characters quoted, backslash escaped for quoting and again for the string value.
    EXPECT_NE(std::string::npos,
              text.find("Exec=\"/opt/My App/bin/run\" --name \"two words\" 100%% \"back\\\\\\\\slash\" \"\\\\$HOME\" \"\"\n"))
        << text;
    EXPECT_NE(std::string::npos, text.find("Path=/opt/My App\n"));

    ShortcutData out;
    ASSERT_TRUE(desktopEntryDecode(text, out).isOk());
    EXPECT_EQ(in.target, out.target);
    EXPECT_EQ(in.arguments, out.arguments);
    EXPECT_EQ(in.description, out.description);
    EXPECT_EQ(in.workingDirectory, out.workingDirectory);

    // Exec changed by hand: the arguments read back are what Exec now says.
    std::string edited = text;
    const size_t at = edited.find("--name");
    edited.replace(at, 6, "--other");
    ASSERT_TRUE(desktopEntryDecode(edited, out).isOk());
    EXPECT_EQ("--other 'two words' 100% 'back\\slash' '$HOME' ''", out.arguments);

    EXPECT_TRUE(desktopEntryDecode("[Desktop Entry]\nType=Application\nName=x\n", out).isBad());
    EXPECT_TRUE(desktopEntryDecode("[Other]\nExec=/bin/true\n", out).isBad());
    EXPECT_TRUE(desktopEntryDecode("[Desktop Entry]\nExec=\"/bin/true\n", out).isBad());
}

TEST(PlatformShortcut, CommandLineSplitFollowsShellRules)
{
    std::vector<std::string> w;
    ASSERT_TRUE(commandLineSplit("  /usr/bin/ks  --a=\"x y\" 'it''s' a\\ b \"q\\\"q\" ''", w));
    EXPECT_EQ(std::vector<std::string>({"/usr/bin/ks", "--a=x y", "its", "a b", "q\"q", ""}), w);
    EXPECT_FALSE(commandLineSplit("\"open", w));
    ASSERT_TRUE(commandLineSplit("", w));
    EXPECT_TRUE(w.empty());
}

TEST(PlatformShortcut, WritingReplacesWholeFilesAndRefusesBadInput)
{
    const std::string dir = scratch();
    const std::string target = dir + "/program";
    writeBytes(target, "#!/bin/sh\n");
    ShortcutData in;
    in.target = target;
    in.description = "first";
    for (const char* name : {"/start.lnk", "/start.desktop"})
    {
        const std::string path = dir + name;
        ASSERT_TRUE(shortcutWrite(path, in).isOk());
        in.description = "second";
        ASSERT_TRUE(shortcutWrite(path, in).isOk());
        ShortcutData out;
        ASSERT_TRUE(shortcutRead(path, out).isOk());
        EXPECT_EQ("second", out.description);
        EXPECT_EQ(target, out.target);
        struct stat st;
        ASSERT_EQ(0, stat(path.c_str(), &st));
        EXPECT_EQ(0644u, st.st_mode & 0777u);
        in.description = "first";
    }
    EXPECT_EQ(3, entries(dir));  // no temporary file left over

    const std::string before = fileBytes(dir + "/start.lnk");
    ShortcutData missing = in;
    missing.target = dir + "/no-such-program";
    Status s = shortcutWrite(dir + "/start.lnk", missing);
    EXPECT_EQ(ENOENT, s.code);
    EXPECT_NE(std::string::npos, s.text.find("no-such-program")) << s.text;
    EXPECT_EQ(before, fileBytes(dir + "/start.lnk"));

    EXPECT_TRUE(shortcutWrite(dir + "/start.url", in).isBad());
    ShortcutData relative = in;
    relative.target = "program";
    EXPECT_TRUE(shortcutWrite(dir + "/rel.lnk", relative).isBad());
    ShortcutData badDir = in;
    badDir.workingDirectory = target;  // a file, not a folder
    EXPECT_EQ(ENOTDIR, shortcutWrite(dir + "/wd.lnk", badDir).code);
    EXPECT_EQ(3, entries(dir));

    ShortcutData out;
    EXPECT_EQ(ENOENT, shortcutRead(dir + "/absent.lnk", out).code);
    writeBytes(dir + "/junk.lnk", "not a link at all");
    s = shortcutRead(dir + "/junk.lnk", out);
    EXPECT_TRUE(s.isBad());
    EXPECT_NE(std::string::npos, s.text.find("junk.lnk' is not a valid shell link")) << s.text;
}

TEST(PlatformShortcut, AReadOnlyFolderIsReportedAndLeftUntouched)
{
    if (geteuid() == 0)
        GTEST_SKIP() << "root writes into read-only folders";
    const std::string dir = scratch();
    const std::string target = dir + "/program";
    writeBytes(target, "x");
    const std::string locked = dir + "/locked";
    mkdir(locked.c_str(), 0555);
    ShortcutData in;
    in.target = target;
    const Status s = shortcutWrite(locked + "/start.desktop", in);
    EXPECT_EQ(EACCES, s.code);
    EXPECT_NE(std::string::npos, s.text.find(locked + "/start.desktop")) << s.text;
    EXPECT_EQ(0, entries(locked));
    chmod(locked.c_str(), 0755);
}
