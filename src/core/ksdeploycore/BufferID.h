#pragma once
#include "KsGlobal.h"

#include <QHash>
#include <QString>

namespace KsDeploy
{
// Identity of one cached content: exactly the MD5 digest of its bytes.
class BufferID
{
public:
    BufferID() = default;
    explicit BufferID(const McLib::MD5& inMd5) : mMd5(inMd5) {}

    const McLib::MD5& md5() const { return mMd5; }
    bool isValid() const { return !mMd5.isNull(); }

    // 32 lower-case hexadecimal digits; empty for the all-zero digest.
    QString toString() const;
    // Accepts 32 digits of either case or the empty text; ok is false for anything else.
    static BufferID fromString(QStringView inText, bool* outOk = nullptr);
    static BufferID fromString(const QString& inText, bool* outOk = nullptr)
    {
        return fromString(QStringView(inText), outOk);
    }

    bool operator==(const BufferID& inOther) const { return mMd5 == inOther.mMd5; }
    bool operator!=(const BufferID& inOther) const { return mMd5 != inOther.mMd5; }
    bool operator<(const BufferID& inOther) const { return mMd5 < inOther.mMd5; }

private:
    McLib::MD5 mMd5;
};

inline size_t qHash(const BufferID& inId, size_t inSeed = 0) { return qHashBits(inId.md5().data(), 16, inSeed); }
}
