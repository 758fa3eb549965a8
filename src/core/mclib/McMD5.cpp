#include "McMD5.h"

#include "McCoder.h"
#include "McDbC.h"

using McLib::MD5;

bool MD5::isNull() const
{
    for (unsigned char b : mData)
        if (b)
            return false;
    return true;
}

McString MD5::toString() const
{
    if (isNull())
        return McString();
    McString out;
    McCoder::dataToHexString(mData, 16, out, true);
    return out;
}

MD5 MD5::fromString(const McString& inEncodedBuffer)
{
    MC_REQUIRE(inEncodedBuffer.length() == 32 || inEncodedBuffer.isEmptyString());
    MD5 out;
    if (inEncodedBuffer.length() == 32)
    {
        if (!McCoder::hexStringToData(out.mData, inEncodedBuffer))
            out.clear();
    }
    return out;
}
