#include "BufferID.h"

using namespace KsDeploy;

namespace
{
int hexDigit(char16_t inChar)
{
    if (inChar >= u'0' && inChar <= u'9')
        return inChar - u'0';
    if (inChar >= u'a' && inChar <= u'f')
        return inChar - u'a' + 10;
    if (inChar >= u'A' && inChar <= u'F')
        return inChar - u'A' + 10;
    return -1;
}
}

// Both directions work on the text in place: every file entry of a product is read and
// written through them.
QString BufferID::toString() const
{
    if (mMd5.isNull())
        return QStringLiteral("");
    static const char16_t sDigits[] = u"0123456789abcdef";
    QString out(32, Qt::Uninitialized);
    char16_t* at = reinterpret_cast<char16_t*>(out.data());
    for (int i = 0; i < 16; ++i)
    {
        *at++ = sDigits[mMd5.data()[i] >> 4];
        *at++ = sDigits[mMd5.data()[i] & 0xf];
    }
    return out;
}

BufferID BufferID::fromString(QStringView inText, bool* outOk)
{
    bool ok = inText.isEmpty();
    McLib::MD5 md5;
    if (inText.size() == 32)
    {
        ok = true;
        for (int i = 0; ok && i < 16; ++i)
        {
            const int hi = hexDigit(inText[2 * i].unicode());
            const int lo = hexDigit(inText[2 * i + 1].unicode());
            ok = hi >= 0 && lo >= 0;
            md5.data()[i] = static_cast<unsigned char>((hi << 4) | lo);
        }
        if (!ok)
            md5.clear();
    }
    if (outOk)
        *outOk = ok;
    return BufferID(md5);
}
