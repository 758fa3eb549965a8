// Signature check with OpenSSL's libcrypto (EVP, one-shot Ed25519 verification).
#include "QxSignatureCheck.h"

#include <QFile>

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <cerrno>
#include <memory>

namespace QxBase
{
namespace
{
// Reads a whole file; on failure the detail line says which and why.
bool readAll(const QString& inPath, QByteArray& outBytes, std::string& outDetail)
{
    QFile file(inPath);
    if (!file.open(QIODevice::ReadOnly))
    {
        const int why = file.error() == QFileDevice::OpenError && !QFile::exists(inPath) ? ENOENT : EACCES;
        outDetail = McLib::osDetail(QFile::encodeName(inPath).toStdString(), why);
        return false;
    }
    outBytes = file.readAll();
    if (file.error() != QFileDevice::NoError)
    {
        outDetail = McLib::osDetail(QFile::encodeName(inPath).toStdString(), EIO);
        return false;
    }
    return true;
}

std::string name(const QString& inPath) { return QFile::encodeName(inPath).toStdString(); }

using PublicKey = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

// The Ed25519 public key a PEM text holds; any other key cannot check our signatures.
McResult ed25519KeyRead(const QByteArray& inPublicKeyPem, const QString& inKeyName, PublicKey& outKey)
{
    McResult retVal;
    std::unique_ptr<BIO, decltype(&BIO_free)> bio(
        BIO_new_mem_buf(inPublicKeyPem.constData(), static_cast<int>(inPublicKeyPem.size())), &BIO_free);
    outKey.reset(bio ? PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    if (outKey && EVP_PKEY_id(outKey.get()) != EVP_PKEY_ED25519)
        outKey.reset();
    MC_CHECK_DETAIL(retVal, outKey != nullptr, QStringLiteral("cannot use the signing key '%1'").arg(inKeyName),
                    name(inKeyName) + ": not an Ed25519 public key in PEM form");
    return retVal;
}
}

McResult SignatureCheck::verifyFile(const QString& inDataFile, const QString& inSignatureFile,
                                    const QString& inPublicKeyFile)
{
    McResult retVal;
    QByteArray key, data, signature;
    std::string detail;
    if (MC_CHECK_DETAIL(retVal, readAll(inPublicKeyFile, key, detail),
                        QStringLiteral("cannot read the signing key '%1'").arg(inPublicKeyFile), detail))
        return retVal;
    if (MC_CHECK_DETAIL(retVal, readAll(inDataFile, data, detail),
                        QStringLiteral("cannot read '%1'").arg(inDataFile), detail))
        return retVal;
    if (MC_CHECK_DETAIL(retVal, readAll(inSignatureFile, signature, detail),
                        QStringLiteral("'%1' is not signed").arg(inDataFile), detail))
        return retVal;
    return verify(data, signature, key, inDataFile, inPublicKeyFile);
}

McResult SignatureCheck::keyCheck(const QByteArray& inPublicKeyPem, const QString& inKeyName)
{
    PublicKey key(nullptr, &EVP_PKEY_free);
    return ed25519KeyRead(inPublicKeyPem, inKeyName, key);
}

McResult SignatureCheck::verify(const QByteArray& inData, const QByteArray& inSignature,
                                const QByteArray& inPublicKeyPem, const QString& inDataName, const QString& inKeyName)
{
    PublicKey key(nullptr, &EVP_PKEY_free);
    McResult retVal = ed25519KeyRead(inPublicKeyPem, inKeyName, key);
    if (retVal.isBad())
        return retVal;

    // Ed25519 signatures are always 64 bytes; anything else cannot be one.
    bool valid = inSignature.size() == 64;
    if (valid)
    {
        std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
        valid = ctx && EVP_DigestVerifyInit(ctx.get(), nullptr, nullptr, nullptr, key.get()) == 1 &&
                EVP_DigestVerify(ctx.get(), reinterpret_cast<const unsigned char*>(inSignature.constData()),
                                 static_cast<size_t>(inSignature.size()),
                                 reinterpret_cast<const unsigned char*>(inData.constData()),
                                 static_cast<size_t>(inData.size())) == 1;
    }
    MC_CHECK_DETAIL(retVal, valid, QStringLiteral("the signature of '%1' is not valid").arg(inDataName),
                    name(inDataName) + ": not signed with the key " + name(inKeyName));
    return retVal;
}
}
