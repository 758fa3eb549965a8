// Shared main of the unit tests: a Qt application object and an isolated home and temp folder.
#include <QCoreApplication>
#include <QDir>
#include <QTemporaryDir>

#include <cstdlib>
#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    // Keep tests away from the real user's folders and maintenance directory.
    QTemporaryDir sandbox;
    if (sandbox.isValid() && !std::getenv("KSDEPLOY_TEST_KEEP_HOME"))
    {
        const QByteArray root = sandbox.path().toLocal8Bit();
        QDir().mkpath(sandbox.path() + "/home");
        QDir().mkpath(sandbox.path() + "/tmp");
        setenv("HOME", (root + "/home").constData(), 1);
        setenv("TMPDIR", (root + "/tmp").constData(), 1);
        unsetenv("XDG_CONFIG_HOME");
        unsetenv("XDG_DATA_HOME");
        unsetenv("XDG_CACHE_HOME");
    }
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
