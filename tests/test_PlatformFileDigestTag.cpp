// Digest tags on files: a tag answers only for the size and time it was made for, belongs to the
// inode (so a hard link shares it, a copy or a rewrite does not), and a foreign or damaged value
// answers nothing.
#include "FileDigestTag.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

using namespace KsPlatform;

namespace
{
struct Scratch
{
    std::string dir;
    Scratch()
    {
        char pattern[] = "/tmp/ks-digest-tag-XXXXXX";
        dir = ::mkdtemp(pattern);
    }
    ~Scratch() { std::system(("rm -rf '" + dir + "'").c_str()); }
};

void writeFile(const std::string& inPath, const std::string& inData)
{
    std::ofstream(inPath, std::ios::binary | std::ios::trunc) << inData;
}

struct Stamp
{
    int64_t size = -1;
    int64_t mtimeNs = 0;
};

Stamp stampOf(const std::string& inPath)
{
    struct stat st;
    Stamp s;
    if (::lstat(inPath.c_str(), &st) == 0)
    {
        s.size = st.st_size;
        s.mtimeNs = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
    }
    return s;
}

const unsigned char sDigest[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
}

TEST(PlatformFileDigestTag, AnswersOnlyForTheStampItWasMadeFor)
{
    Scratch s;
    const std::string file = s.dir + "/file", link = s.dir + "/link", copy = s.dir + "/copy";
    writeFile(file, "some content");
    const Stamp at = stampOf(file);
    if (FileDigestTag::write(file, sDigest, at.size, at.mtimeNs).code == ENOTSUP)
        GTEST_SKIP() << "no extended attributes on " << s.dir;
    unsigned char read[16] = {};
    ASSERT_TRUE(FileDigestTag::read(file, at.size, at.mtimeNs, read));
    EXPECT_EQ(0, std::memcmp(sDigest, read, 16));
    EXPECT_FALSE(FileDigestTag::read(file, at.size + 1, at.mtimeNs, read));
    EXPECT_FALSE(FileDigestTag::read(file, at.size, at.mtimeNs + 1, read));

    // A second name of the inode has the tag; a copy of the bytes does not.
    ASSERT_EQ(0, ::link(file.c_str(), link.c_str()));
    EXPECT_TRUE(FileDigestTag::read(link, at.size, at.mtimeNs, read));
    writeFile(copy, "some content");
    const Stamp copied = stampOf(copy);
    EXPECT_FALSE(FileDigestTag::read(copy, copied.size, copied.mtimeNs, read));

    // A rewrite of the same size gets a new time: the old tag no longer answers.
    ::usleep(20000);
    writeFile(file, "SOME CONTENT");
    const Stamp rewritten = stampOf(file);
    ASSERT_EQ(at.size, rewritten.size);
    EXPECT_FALSE(FileDigestTag::read(file, rewritten.size, rewritten.mtimeNs, read));

    // A symbolic link is neither followed when tagging nor when reading.
    const std::string symlink = s.dir + "/symlink";
    ASSERT_EQ(0, ::symlink(link.c_str(), symlink.c_str()));
    EXPECT_FALSE(FileDigestTag::read(symlink, at.size, at.mtimeNs, read));
    EXPECT_TRUE(FileDigestTag::write(symlink, sDigest, at.size, at.mtimeNs).isBad());
    EXPECT_TRUE(FileDigestTag::write(s.dir + "/missing", sDigest, 1, 1).isBad());
}

TEST(PlatformFileDigestTag, AForeignOrDamagedValueAnswersNothing)
{
    Scratch s;
    const std::string file = s.dir + "/file";
    writeFile(file, "x");
    const Stamp at = stampOf(file);
    if (FileDigestTag::write(file, sDigest, at.size, at.mtimeNs).code == ENOTSUP)
        GTEST_SKIP() << "no extended attributes on " << s.dir;
    unsigned char value[64];
    const ssize_t n = ::getxattr(file.c_str(), "user.ksdeploy.digest", value, sizeof(value));
    ASSERT_EQ(36, n);
    unsigned char read[16];
    // Cut short, one byte too long, another layout's mark.
    for (const size_t length : {size_t(35), size_t(37)})
    {
        ASSERT_EQ(0, ::setxattr(file.c_str(), "user.ksdeploy.digest", value, length, 0));
        EXPECT_FALSE(FileDigestTag::read(file, at.size, at.mtimeNs, read)) << length;
    }
    value[3] = '2';
    ASSERT_EQ(0, ::setxattr(file.c_str(), "user.ksdeploy.digest", value, 36, 0));
    EXPECT_FALSE(FileDigestTag::read(file, at.size, at.mtimeNs, read));
}
