// Signed product descriptions: keys and signatures made by the openssl tool, as a publisher
// makes them, checked by the library.
#include "KsTestSupport.h"
#include "QxSignatureCheck.h"

#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace
{
class SignatureCheckTest : public ::testing::Test
{
protected:
    QTemporaryDir mDir;
    QString p(const QString& inRel) const { return mDir.path() + "/" + inRel; }

    static bool openssl(const QStringList& inArgs)
    {
        QProcess tool;
        tool.start("openssl", inArgs);
        return tool.waitForFinished(60000) && tool.exitStatus() == QProcess::NormalExit && tool.exitCode() == 0;
    }
    // A key pair inName.key / inName.pem.
    void keyPair(const QString& inName)
    {
        ASSERT_TRUE(openssl({"genpkey", "-algorithm", "ed25519", "-out", p(inName + ".key")}));
        ASSERT_TRUE(openssl({"pkey", "-in", p(inName + ".key"), "-pubout", "-out", p(inName + ".pem")}));
    }
    void sign(const QString& inKey, const QString& inFile, const QString& inSignature)
    {
        ASSERT_TRUE(openssl(
            {"pkeyutl", "-sign", "-rawin", "-inkey", p(inKey + ".key"), "-in", p(inFile), "-out", p(inSignature)}));
    }
    std::string failureOf(const QString& inData, const QString& inSignature, const QString& inKey)
    {
        KsTest::FailureRecorder failures;
        const McResult r = QxBase::SignatureCheck::verifyFile(p(inData), p(inSignature), p(inKey));
        if (r.isOk())
            return "ok";
        return failures.failures().empty() ? "unreported"
                                           : failures.failures()[0].message + " | " + failures.failures()[0].detail;
    }
};
}

TEST_F(SignatureCheckTest, OnlyTheRightKeysSignatureOfTheSameBytesPasses)
{
    keyPair("publisher");
    keyPair("other");
    KsTest::writeFile(p("product.xml"), "<product version=\"2\"/>\n");
    sign("publisher", "product.xml", "product.xml.sig");
    sign("other", "product.xml", "other.sig");
    EXPECT_EQ("ok", failureOf("product.xml", "product.xml.sig", "publisher.pem"));

    const std::string data = p("product.xml").toStdString();
    const std::string invalid = "the signature of '" + data + "' is not valid | " + data +
                                ": not signed with the key " + p("publisher.pem").toStdString();
    EXPECT_EQ(invalid, failureOf("product.xml", "other.sig", "publisher.pem")) << "another publisher's key";

    // One byte more in the description, a damaged or cut signature: refused alike.
    KsTest::writeFile(p("changed.xml"), "<product version=\"2\"/>\n ");
    EXPECT_NE("ok", failureOf("changed.xml", "product.xml.sig", "publisher.pem"));
    QByteArray sig = KsTest::readFile(p("product.xml.sig"));
    ASSERT_EQ(64, sig.size());
    sig[10] = static_cast<char>(sig[10] ^ 1);
    KsTest::writeFile(p("damaged.sig"), sig);
    EXPECT_EQ(invalid, failureOf("product.xml", "damaged.sig", "publisher.pem"));
    KsTest::writeFile(p("short.sig"), sig.left(63));
    EXPECT_EQ(invalid, failureOf("product.xml", "short.sig", "publisher.pem"));
    KsTest::writeFile(p("empty.sig"), QByteArray());
    EXPECT_EQ(invalid, failureOf("product.xml", "empty.sig", "publisher.pem"));

    EXPECT_EQ("'" + data + "' is not signed | " + p("missing.sig").toStdString() + ": No such file or directory",
              failureOf("product.xml", "missing.sig", "publisher.pem"));
}

TEST_F(SignatureCheckTest, KeysThatAreNotEd25519PublicKeysAreRefused)
{
    KsTest::writeFile(p("product.xml"), "<product/>\n");
    keyPair("publisher");
    sign("publisher", "product.xml", "product.xml.sig");
    // A private key, an RSA key and rubbish are no update key.
    ASSERT_TRUE(openssl({"genpkey", "-algorithm", "rsa", "-pkeyopt", "rsa_keygen_bits:1024", "-out", p("rsa.key")}));
    ASSERT_TRUE(openssl({"pkey", "-in", p("rsa.key"), "-pubout", "-out", p("rsa.pem")}));
    KsTest::writeFile(p("rubbish.pem"), "-----BEGIN PUBLIC KEY-----\nAAAA\n-----END PUBLIC KEY-----\n");
    for (const char* key : {"publisher.key", "rsa.pem", "rubbish.pem"})
        EXPECT_EQ("cannot use the signing key '" + p(key).toStdString() + "' | " + p(key).toStdString() +
                      ": not an Ed25519 public key in PEM form",
                  failureOf("product.xml", "product.xml.sig", key));
    EXPECT_EQ("cannot read the signing key '" + p("none.pem").toStdString() + "' | " + p("none.pem").toStdString() +
                  ": No such file or directory",
              failureOf("product.xml", "product.xml.sig", "none.pem"));
}
