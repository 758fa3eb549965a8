// The binary shell-link format (header, LinkInfo, StringData, terminal block), written in the
// single-byte string form that the ANSI shell-link interface produces. Portable code.
#include "Shortcut.h"

#include <cerrno>
#include <cstring>

namespace KsPlatform
{
namespace
{
const unsigned char sLinkClsid[16] = {0x01, 0x14, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00,
                                      0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46};
enum : std::uint32_t
{
    HasLinkTargetIdList = 0x01,
    HasLinkInfo = 0x02,
    HasName = 0x04,
    HasRelativePath = 0x08,
    HasWorkingDir = 0x10,
    HasArguments = 0x20,
    HasIconLocation = 0x40,
    IsUnicode = 0x80,
};
const std::uint32_t sHeaderSize = 0x4C;
const std::uint32_t sLinkInfoHeaderSize = 0x1C;
const std::uint32_t sFileAttributeDirectory = 0x10;
const std::uint32_t sFileAttributeArchive = 0x20;
const std::uint32_t sDriveFixed = 3;
const std::uint32_t sShowNormal = 1;

void put16(std::string& out, std::uint32_t v)
{
    out += static_cast<char>(v & 0xFF);
    out += static_cast<char>((v >> 8) & 0xFF);
}
void put32(std::string& out, std::uint32_t v)
{
    put16(out, v & 0xFFFF);
    put16(out, v >> 16);
}
void put64(std::string& out, std::uint64_t v)
{
    put32(out, static_cast<std::uint32_t>(v));
    put32(out, static_cast<std::uint32_t>(v >> 32));
}
void patch32(std::string& out, size_t at, std::uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        out[at + i] = static_cast<char>((v >> (8 * i)) & 0xFF);
}

// 100-nanosecond intervals since 1601, the Windows file time.
std::uint64_t fileTime(std::int64_t inUnixSeconds)
{
    const std::int64_t s = inUnixSeconds + 11644473600LL;
    return s > 0 ? static_cast<std::uint64_t>(s) * 10000000ull : 0;
}

void putCountedString(std::string& out, const std::string& inText)
{
    put16(out, static_cast<std::uint32_t>(inText.size()));
    out += inText;
}

class Reader
{
public:
    explicit Reader(const std::string& inBytes) : mBytes(inBytes) {}
    bool has(size_t inCount) const { return mPos <= mBytes.size() && mBytes.size() - mPos >= inCount; }
    std::uint32_t u16(size_t at) const
    {
        return static_cast<unsigned char>(mBytes[at]) | (static_cast<unsigned char>(mBytes[at + 1]) << 8);
    }
    std::uint32_t u32(size_t at) const { return u16(at) | (u16(at + 2) << 16); }
    bool take16(std::uint32_t& out)
    {
        if (!has(2))
            return false;
        out = u16(mPos);
        mPos += 2;
        return true;
    }
    bool take32(std::uint32_t& out)
    {
        if (!has(4))
            return false;
        out = u32(mPos);
        mPos += 4;
        return true;
    }
    bool skip(size_t inCount)
    {
        if (!has(inCount))
            return false;
        mPos += inCount;
        return true;
    }
    // A counted string of the StringData section.
    bool takeString(bool inUnicode, std::string& out)
    {
        std::uint32_t count = 0;
        if (!take16(count))
            return false;
        const size_t bytes = inUnicode ? count * 2u : count;
        if (!has(bytes))
            return false;
        out.clear();
        for (std::uint32_t i = 0; i < count; ++i)
        {
            if (!inUnicode)
            {
                out += mBytes[mPos + i];
                continue;
            }
            const std::uint32_t c = u16(mPos + 2 * i);
            out += c <= 0xFF ? static_cast<char>(c) : '?';
        }
        mPos += bytes;
        return true;
    }
    // A zero-terminated single-byte string at an absolute position, within inEnd.
    bool cString(size_t at, size_t inEnd, std::string& out) const
    {
        if (at >= inEnd || inEnd > mBytes.size())
            return false;
        const size_t zero = mBytes.find('\0', at);
        if (zero == std::string::npos || zero >= inEnd)
            return false;
        out = mBytes.substr(at, zero - at);
        return true;
    }
    size_t pos() const { return mPos; }

private:
    const std::string& mBytes;
    size_t mPos = 0;
};
}

std::string shellLinkEncode(const ShortcutData& inData, const ShortcutTargetFacts& inTarget)
{
    std::uint32_t flags = HasLinkInfo;
    if (!inData.description.empty())
        flags |= HasName;
    if (!inData.workingDirectory.empty())
        flags |= HasWorkingDir;
    if (!inData.arguments.empty())
        flags |= HasArguments;

    std::string out;
    put32(out, sHeaderSize);
    out.append(reinterpret_cast<const char*>(sLinkClsid), sizeof(sLinkClsid));
    put32(out, flags);
    put32(out, inTarget.isDirectory ? sFileAttributeDirectory : sFileAttributeArchive);
    put64(out, fileTime(inTarget.creationTime));
    put64(out, fileTime(inTarget.accessTime));
    put64(out, fileTime(inTarget.writeTime));
    put32(out, static_cast<std::uint32_t>(inTarget.size > 0xFFFFFFFFull ? 0xFFFFFFFFull : inTarget.size));
    put32(out, 0);            // icon index
    put32(out, sShowNormal);  // show command
    put16(out, 0);            // hot key
    put16(out, 0);            // reserved
    put32(out, 0);
    put32(out, 0);

    // LinkInfo: a volume id (fixed drive, no label) and the local base path.
    const size_t linkInfoAt = out.size();
    const std::uint32_t volumeIdSize = 0x10 + 1;
    const std::uint32_t volumeIdOffset = sLinkInfoHeaderSize;
    const std::uint32_t basePathOffset = volumeIdOffset + volumeIdSize;
    const std::uint32_t suffixOffset = basePathOffset + static_cast<std::uint32_t>(inData.target.size()) + 1;
    put32(out, 0);  // size, patched below
    put32(out, sLinkInfoHeaderSize);
    put32(out, 0x1);  // VolumeIDAndLocalBasePath
    put32(out, volumeIdOffset);
    put32(out, basePathOffset);
    put32(out, 0);  // no network location
    put32(out, suffixOffset);
    put32(out, volumeIdSize);
    put32(out, sDriveFixed);
    put32(out, 0);     // drive serial number
    put32(out, 0x10);  // label offset: the empty label right after
    out += '\0';
    out += inData.target;
    out += '\0';
    out += '\0';  // empty common path suffix
    patch32(out, linkInfoAt, static_cast<std::uint32_t>(out.size() - linkInfoAt));

    if (flags & HasName)
        putCountedString(out, inData.description);
    if (flags & HasWorkingDir)
        putCountedString(out, inData.workingDirectory);
    if (flags & HasArguments)
        putCountedString(out, inData.arguments);
    put32(out, 0);  // terminal block
    return out;
}

Status shellLinkDecode(const std::string& inBytes, ShortcutData& outData)
{
    const auto damaged = [](const char* inWhat) {
        return Status::bad(EINVAL, std::string("not a valid shell link: ") + inWhat);
    };
    Reader r(inBytes);
    std::uint32_t headerSize = 0;
    if (!r.take32(headerSize) || headerSize != sHeaderSize || !r.has(sHeaderSize - 4) ||
        std::memcmp(inBytes.data() + 4, sLinkClsid, sizeof(sLinkClsid)) != 0)
        return damaged("wrong header");
    const std::uint32_t flags = r.u32(20);
    r.skip(sHeaderSize - 4);

    ShortcutData data;
    if (flags & HasLinkTargetIdList)
    {
        std::uint32_t idListSize = 0;
        if (!r.take16(idListSize) || !r.skip(idListSize))
            return damaged("truncated target id list");
    }
    if (flags & HasLinkInfo)
    {
        const size_t at = r.pos();
        std::uint32_t size = 0;
        if (!r.take32(size) || size < sLinkInfoHeaderSize || !r.has(size - 4))
            return damaged("truncated link info");
        const size_t end = at + size;
        const std::uint32_t infoFlags = r.u32(at + 8);
        if (infoFlags & 0x1)
        {
            std::string base;
            std::string suffix;
            if (!r.cString(at + r.u32(at + 16), end, base))
                return damaged("bad local base path");
            const std::uint32_t suffixOffset = r.u32(at + 24);
            if (suffixOffset != 0 && !r.cString(at + suffixOffset, end, suffix))
                return damaged("bad common path suffix");
            data.target = base + suffix;
        }
        r.skip(size - 4);
    }
    const bool unicode = (flags & IsUnicode) != 0;
    std::string relativePath;
    std::string icon;
    const std::pair<std::uint32_t, std::string*> strings[] = {{HasName, &data.description},
                                                              {HasRelativePath, &relativePath},
                                                              {HasWorkingDir, &data.workingDirectory},
                                                              {HasArguments, &data.arguments},
                                                              {HasIconLocation, &icon}};
    for (const auto& s : strings)
        if ((flags & s.first) && !r.takeString(unicode, *s.second))
            return damaged("truncated string data");
    if (data.target.empty())
        data.target = relativePath;
    // A path or argument cut at a NUL would name something else than the link says.
    for (const std::string* text : {&data.target, &data.arguments, &data.description, &data.workingDirectory})
        if (text->find('\0') != std::string::npos)
            return damaged("NUL character in string data");
    outData = data;
    return Status::ok();
}
}
