// The compiled catalogs of bin/share/translations: with the German one installed, the engine's
// task names come out German; Qt's own German texts load with the catalogs they name.
#include "Generator.h"
#include "KsTestSupport.h"
#include "ResourceFileDirectory.h"
#include "ResourceFileEntry.h"
#include "ResourceProduct.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QStringList>
#include <QTemporaryDir>
#include <QTranslator>

using namespace KsDeploy;

namespace
{
const QString sDir = QStringLiteral(KSDEPLOY_TRANSLATIONS_DIR);

class TranslationsTest : public KsTest::EngineTest
{
protected:
    void TearDown() override
    {
        for (QTranslator* t : mInstalled)
            QCoreApplication::removeTranslator(t);
        KsTest::EngineTest::TearDown();
    }
    // Loads a catalog of the build and installs it for this test.
    bool install(QTranslator& inoutTranslator, const QString& inName)
    {
        if (!inoutTranslator.load(inName, sDir) || !QCoreApplication::installTranslator(&inoutTranslator))
            return false;
        mInstalled.append(&inoutTranslator);
        return true;
    }
    QList<QTranslator*> mInstalled;
};

QStringList loggedTasks(const KsTest::LogRecorder& inLog)
{
    QStringList tasks;
    for (const KsTest::LogLine& line : inLog.lines())
    {
        const QString text = QString::fromLatin1(line.text.c_str()).trimmed();
        if (text.endsWith(QStringLiteral(" ...")))
            tasks.append(text.chopped(4));
    }
    return tasks;
}
}

TEST_F(TranslationsTest, GermanTaskNamesOfTheEngineCacheAndGenerator)
{
    QTranslator source;
    QTranslator german;
    // The source-language catalog first, as the client loads them; the German one wins.
    ASSERT_TRUE(install(source, QStringLiteral("kestra")));
    ASSERT_TRUE(install(german, QStringLiteral("kestra_de")));

    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    KsTest::writeFile(dir.path() + "/build/a.txt", "a\n");
    McHandle<ResourceFileDirectory> root(new ResourceFileDirectory);
    root->nameSet(dir.path() + "/app");
    McHandle<ResourceProduct> product(new ResourceProduct);
    product->nameSet(QStringLiteral("App"));
    product->applicationDirectorySet(root);

    KsTest::LogRecorder log;
    Engine& e = Engine::instance();
    EXPECT_TRUE(e.productInstall(QStringLiteral("App"), false).isOk());
    EXPECT_TRUE(e.productVerify(QStringLiteral("App")).isOk());
    EXPECT_TRUE(e.productRescan(QStringLiteral("App")).isOk());
    EXPECT_TRUE(e.productPrecache(QStringLiteral("App"), false).isOk());
    EXPECT_TRUE(e.productUninstall(QStringLiteral("App")).isOk());
    McHandle<ResourceFileDirectory> top;
    McDArray<McHandle<Resource>> generated;
    EXPECT_TRUE(
        Generator::generateFromDirectory(top, generated, dir.path() + "/build", false, QStringList(), QStringList())
            .isOk());

    const QStringList tasks = loggedTasks(log);
    for (const char* expected :
         {"Beginn der Transaktion", "Herunterladen", "Installation", "Abschluss der Transaktion", "Überprüfung",
          "Erneute Erfassung", "Ressourcen zwischenspeichern", "Deinstallation", "Aus Verzeichnis erzeugen"})
        EXPECT_TRUE(tasks.contains(QString::fromUtf8(expected)))
            << expected << " not among " << tasks.join(", ").toStdString();
    EXPECT_FALSE(tasks.contains(QStringLiteral("Verification"))) << tasks.join(", ").toStdString();
}

TEST_F(TranslationsTest, GermanTextsOfTheDialogAndTheClientPlugin)
{
    QTranslator german;
    ASSERT_TRUE(install(german, QStringLiteral("kestra_de")));
    EXPECT_EQ(QString::fromUtf8("Schließen"), QCoreApplication::translate("WidgetProgress", "Close"));
    EXPECT_EQ(QString::fromUtf8("Die automatische Aktualisierung ist fehlgeschlagen.\n"
                                "Bitte installieren Sie die neue Version von Hand."),
              QCoreApplication::translate("WidgetProgress", "Automatic update has failed.\nPlease install manually."));
    EXPECT_EQ(QStringLiteral("Trennlinie"), QCoreApplication::translate("QxDialog", "Separator"));
    EXPECT_EQ(
        QString::fromUtf8("Möchten Sie Ihren Client auf Version 2.0.0.1 aktualisieren?"),
        QCoreApplication::translate("KsDeploy::PluginKestraClient", "Do you want to update your client to version %1?")
            .arg(QStringLiteral("2.0.0.1")));
}

TEST_F(TranslationsTest, QtsOwnGermanTextsLoadWithTheCatalogsTheyName)
{
    if (!QFileInfo::exists(sDir + "/qt_de.qm"))
        GTEST_SKIP() << "Qt's translations are not installed (qt6-translations-l10n)";
    QTranslator qt;
    ASSERT_TRUE(install(qt, QStringLiteral("qt_de")));
    EXPECT_EQ(QStringLiteral("&Ja"), QCoreApplication::translate("QPlatformTheme", "&Yes"));
}
