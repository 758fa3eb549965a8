// Shortcut files of the platform layer: shell links and desktop entries, written and read back.
#include "../fuzz/FuzzPlatformChecks.h"
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

std::uint32_t u32(const std::string& inBytes, size_t at)
{
    std::uint32_t v = 0;
    for (int i = 3; i >= 0; --i)
        v = (v << 8) | static_cast<unsigned char>(inBytes[at + i]);
    return v;
}

// The fuzz inputs of one decoder: its seeds and every finding kept, as (name, bytes).
std::vector<std::pair<std::string, std::string>> fuzzInputs(const std::string& inTarget)
{
    std::vector<std::pair<std::string, std::string>> inputs;
    for (const char* kind : {"corpus", "regressions"})
    {
        const std::string folder = std::string(KSDEPLOY_SOURCE_DIR "/fuzz/") + kind + "/" + inTarget;
        DIR* dir = ::opendir(folder.c_str());
        if (!dir)
            continue;
        while (const dirent* entry = ::readdir(dir))
        {
            const std::string path = folder + "/" + entry->d_name;
            struct stat info;
            if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode))
                continue;
            std::ifstream in(path, std::ios::binary);
            inputs.emplace_back(path,
                                std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()));
        }
        ::closedir(dir);
    }
    return inputs;
}
}

// Every seed and every finding of the decoders' fuzz targets passes their checks.
TEST(PlatformShortcut, FuzzInputsOfBothDecodersPass)
{
    const auto links = fuzzInputs("shell_link");
    const auto entries = fuzzInputs("desktop_entry");
    ASSERT_FALSE(links.empty());
    ASSERT_FALSE(entries.empty());
    for (const auto& input : links)
        EXPECT_EQ("", KsFuzz::checkShellLink(input.second)) << input.first;
    for (const auto& input : entries)
        EXPECT_EQ("", KsFuzz::checkDesktopEntry(input.second)) << input.first;
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
    EXPECT_NE(
        std::string::npos,
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
