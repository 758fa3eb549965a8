#pragma once
#include "QxGlobal.h"

#include <QByteArray>
#include <QString>

namespace QxBase
{
// Whether a file is what its publisher signed: an Ed25519 signature (64 bytes, detached, over the
// file's bytes as they are) checked against a public key in PEM form. The publisher makes both
// with the openssl tool (genpkey -algorithm ed25519; pkeyutl -sign -rawin).
class SignatureCheck
{
public:
    // Good only when inSignatureFile holds a valid signature of inDataFile's bytes under the key
    // in inPublicKeyFile. A missing or unreadable file, a key that is not an Ed25519 public key,
    // and a signature that does not match are each a failure naming the file concerned.
    static McResult verifyFile(const QString& inDataFile, const QString& inSignatureFile,
                               const QString& inPublicKeyFile);
    // Good when inPublicKeyPem is an Ed25519 public key in PEM form (what a publisher ships).
    static McResult keyCheck(const QByteArray& inPublicKeyPem, const QString& inKeyName);
    // The same for bytes already in memory; inDataName and inKeyName only name them in messages.
    static McResult verify(const QByteArray& inData, const QByteArray& inSignature, const QByteArray& inPublicKeyPem,
                           const QString& inDataName, const QString& inKeyName);
};
}
