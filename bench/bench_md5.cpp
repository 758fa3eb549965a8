// MD5 of a large file: our incremental coder against md5sum on the same file.
#include "BenchHarness.h"
#include "McCoder.h"
#include "McMD5.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace
{
std::string md5OfFile(const std::string& inPath)
{
    const int fd = ::open(inPath.c_str(), O_RDONLY);
    if (fd < 0)
        std::exit(2);
    std::vector<unsigned char> buf(1 << 20);
    McCoder coder;
    for (;;)
    {
        const ssize_t n = ::read(fd, buf.data(), buf.size());
        if (n <= 0)
            break;
        coder.crcMD5Update(buf.data(), static_cast<unsigned int>(n));
    }
    ::close(fd);
    coder.crcMD5Final();
    McLib::MD5 digest;
    coder.crcMD5Query(digest.data());
    return digest.toString().str();
}
}

int main()
{
    const long long mib = KsBench::sizeFromEnv("KSDEPLOY_BENCH_MD5_MIB", 1024, 64);
    const std::string dir = KsBench::scratchDir("md5");
    const std::string file = dir + "/data.bin";
    KsBench::makeFile(file, static_cast<unsigned long long>(mib) << 20, false);

    std::string ours;
    KsBench::Comparison c;
    c.row = "MD5 of " + std::to_string(mib) + " MiB";
    c.target = 1.0 / 0.9;
    c.peerName = "md5sum";
    c.ours = KsBench::call([&] { ours = md5OfFile(file); });
    c.peer = KsBench::command("md5sum '" + file + "' > '" + dir + "/md5sum.txt'");
    const KsBench::Result result = KsBench::compare(c);
    FILE* f = std::fopen((dir + "/md5sum.txt").c_str(), "r");
    char peer[33] = {0};
    if (!f || std::fscanf(f, "%32s", peer) != 1)
        return 2;
    std::fclose(f);
    if (ours != peer)
    {
        std::fprintf(stderr, "digest mismatch: ours %s, md5sum %s\n", ours.c_str(), peer);
        return 1;
    }
    return KsBench::report({result}, "MD5") ? 0 : 1;
}
