#include "BufferID.h"

using namespace KsDeploy;

BufferID BufferID::fromString(const QString& inText, bool* outOk)
{
    bool ok = inText.isEmpty();
    McLib::MD5 md5;
    if (inText.size() == 32)
    {
        const QByteArray latin = inText.toLatin1();
        ok = McCoder::hexStringToData(md5.data(), McString(latin.constData()));
        if (!ok)
            md5.clear();
    }
    if (outOk)
        *outOk = ok;
    return BufferID(md5);
}
