// The progress dialog on the offscreen platform: its widgets, the close guard, the bar, the log
// and the details pane, driven through the engine that owns it.
#include "ConsoleProgress.h"
#include "Engine.h"
#include "QxMessageBox.h"
#include "WidgetProgress.h"

#include <QApplication>
#include <QCheckBox>
#include <QLabel>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <QTranslator>

#include <cmath>
#include <cstdlib>
#include <gtest/gtest.h>
#include <limits>

using KsDeploy::Engine;
using KsDeploy::WidgetProgress;

namespace
{
class WidgetProgressTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        Engine::instanceTestReset();
        Engine::instanceInit(nullptr);
        mDialog = dynamic_cast<WidgetProgress*>(&Engine::instance().progress());
        ASSERT_NE(nullptr, mDialog);
    }
    void TearDown() override { Engine::instanceTestReset(); }

    template <class T>
    T* child(const char* inName)
    {
        T* found = mDialog->findChild<T*>(QString::fromLatin1(inName));
        EXPECT_NE(nullptr, found) << inName;
        return found;
    }

    WidgetProgress* mDialog = nullptr;
};

TEST_F(WidgetProgressTest, EngineGivesAShownDialogUnlessQuiet)
{
    EXPECT_TRUE(mDialog->isVisible());
    Engine::instanceTestReset();
    Engine::instanceInit(nullptr);
    Engine::instance().quietSet(true);
    EXPECT_NE(nullptr, dynamic_cast<KsDeploy::ConsoleProgress*>(&Engine::instance().progress()));
    for (QWidget* widget : QApplication::topLevelWidgets())
        EXPECT_EQ(nullptr, qobject_cast<WidgetProgress*>(widget)) << "a quiet engine opened a window";
}

TEST_F(WidgetProgressTest, WidgetTreeStartsBusyWithHiddenLogAndEveryWidgetDescribed)
{
    EXPECT_EQ(QStringLiteral("KestraLayoutBase"), mDialog->objectName());
    EXPECT_EQ(QStringLiteral("Kestra Imaging"), mDialog->windowTitle());
    EXPECT_EQ(QStringLiteral("Kestra Imaging"), child<QLabel>("mTitle")->text());
    EXPECT_EQ(15, child<QLabel>("mTitle")->font().pointSize());
    EXPECT_FALSE(child<QLabel>("mLogo")->pixmap().isNull()) << "logo resource not compiled in";
    QWidget* content = child<QWidget>("mContent");
    QProgressBar* bar = child<QProgressBar>("mProgress");
    EXPECT_EQ(content, bar->parentWidget());
    EXPECT_EQ(10000, bar->maximum());
    EXPECT_EQ(0, bar->value());
    EXPECT_FALSE(child<QPushButton>("mButtonClose")->isEnabled());
    EXPECT_EQ(QStringLiteral("Show Details"), child<QCheckBox>("mButtonDetails")->text());
    QPlainTextEdit* log = child<QPlainTextEdit>("mMessageText");
    EXPECT_TRUE(log->isReadOnly());
    EXPECT_FALSE(log->isVisible());
    EXPECT_EQ(600, mDialog->detailsHeight());
    EXPECT_EQ(-1, mDialog->reservedIndex());
    // A screen reader must have a name and a description for everything it can land on.
    for (QWidget* widget : mDialog->findChildren<QWidget*>(QString(), Qt::FindDirectChildrenOnly) +
                               content->findChildren<QWidget*>(QString(), Qt::FindDirectChildrenOnly))
    {
        if (widget->objectName().startsWith(QLatin1String("qt_")))
            continue;
        EXPECT_FALSE(widget->accessibleName().isEmpty()) << widget->objectName().toStdString();
        EXPECT_FALSE(widget->accessibleDescription().isEmpty()) << widget->objectName().toStdString();
    }
}

TEST_F(WidgetProgressTest, NothingClosesTheDialogUntilItIsCloseable)
{
    QTest::keyClick(mDialog, Qt::Key_Escape);
    EXPECT_TRUE(mDialog->isVisible()) << "Escape";
    static_cast<QWidget*>(mDialog)->close();
    EXPECT_TRUE(mDialog->isVisible()) << "window close";
    mDialog->close();
    EXPECT_TRUE(mDialog->isVisible()) << "close()";

    mDialog->makeCloseable();
    QPushButton* button = child<QPushButton>("mButtonClose");
    EXPECT_TRUE(button->isEnabled());
    QTest::mouseClick(button, Qt::LeftButton);
    EXPECT_FALSE(mDialog->isVisible()) << "Close button after makeCloseable";

    mDialog->show();
    QTest::keyClick(mDialog, Qt::Key_Escape);
    EXPECT_FALSE(mDialog->isVisible()) << "Escape after makeCloseable";
}

TEST_F(WidgetProgressTest, BarTruncatesAndEqualValuesAreSkippedButNaNNeverIs)
{
    QProgressBar* bar = child<QProgressBar>("mProgress");
    QLabel* operation = child<QLabel>("mLabelOperation");
    mDialog->taskStartNext(QStringLiteral("Installation"));
    EXPECT_EQ(QStringLiteral("Installation"), operation->text());
    mDialog->progressSet(0.5f);
    EXPECT_EQ(5000, bar->value());
    mDialog->progressSet(0.33333f);
    EXPECT_EQ(3333, bar->value());
    EXPECT_FLOAT_EQ(0.33333f, mDialog->progress());

    // An update rewrites the operation label; a skipped one leaves our marker in place.
    operation->setText(QStringLiteral("marker"));
    mDialog->progressSet(0.33333f);
    EXPECT_EQ(QStringLiteral("marker"), operation->text()) << "an equal value was not skipped";
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (int round = 0; round < 2; ++round)
    {
        operation->setText(QStringLiteral("marker"));
        mDialog->progressSet(nan);
        EXPECT_EQ(QStringLiteral("Installation"), operation->text()) << "NaN skipped in round " << round;
    }

    // A new task starts the bar from empty.
    mDialog->progressSet(0.75f);
    mDialog->taskStartNext(QStringLiteral("Verification"));
    EXPECT_EQ(0, bar->value());
}

TEST_F(WidgetProgressTest, FractionsOutsideTheRangeKeepTheBarInItsRange)
{
    QProgressBar* bar = child<QProgressBar>("mProgress");
    const float inf = std::numeric_limits<float>::infinity();
    for (float fraction : {1.5f, -0.25f, 1e30f, -1e30f, inf, -inf, std::numeric_limits<float>::quiet_NaN(), 1.0f})
    {
        mDialog->progressSet(fraction);
        EXPECT_GE(bar->value(), 0) << fraction;
        EXPECT_LE(bar->value(), 10000) << fraction;
    }
    EXPECT_EQ(10000, bar->value());
}

TEST_F(WidgetProgressTest, LogKeepsEveryLineInOrderAndSeparatesTasks)
{
    mDialog->taskStartNext(QStringLiteral("A"));
    EXPECT_EQ(QStringLiteral("A\n"), mDialog->logText());
    mDialog->taskStartNext(QStringLiteral("B"));
    EXPECT_EQ(QStringLiteral("A\n\n\n\nB\n"), mDialog->logText());

    // Far more lines than repaints: none may be lost or reordered by the batching.
    QStringList expected;
    for (int i = 0; i < 3000; ++i)
    {
        expected << QStringLiteral("line %1").arg(i);
        Engine::instance().trace(McLogLevelInfo, expected.last());
    }
    const QStringList lines = mDialog->logText().split(QLatin1Char('\n'));
    ASSERT_GE(lines.size(), 3000);
    EXPECT_EQ(expected, lines.mid(lines.size() - 3000));
}

TEST_F(WidgetProgressTest, DetailsFoldOutAtTheRememberedHeightAndFoldAwayAgain)
{
    QCheckBox* details = child<QCheckBox>("mButtonDetails");
    QPlainTextEdit* log = child<QPlainTextEdit>("mMessageText");
    QTest::mouseClick(details, Qt::LeftButton);
    EXPECT_TRUE(log->isVisible());
    EXPECT_EQ(600, mDialog->height());

    mDialog->resize(mDialog->width(), 650);
    QApplication::processEvents();
    mDialog->slot_DetailsSetVisible(false);
    EXPECT_FALSE(log->isVisible());
    EXPECT_FALSE(details->isChecked()) << "a direct call must update the check box";
    EXPECT_EQ(650, mDialog->detailsHeight());
    EXPECT_LT(mDialog->height(), 650);

    QTest::mouseClick(details, Qt::LeftButton);
    EXPECT_EQ(650, mDialog->height());
}

TEST_F(WidgetProgressTest, UpdateFailureWarnsAndMakesCloseable)
{
    QString shown;
    QTimer::singleShot(0, [&shown] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (!box)
            return;
        shown = box->text();
        box->accept();
    });
    mDialog->reportUpdateFailure();
    EXPECT_EQ(QStringLiteral("Automatic update has failed.\nPlease install manually."), shown);
    EXPECT_TRUE(child<QPushButton>("mButtonClose")->isEnabled());
}

// Answers for the dialog's context only, so a missing context shows as an untranslated text.
class GermanTranslator : public QTranslator
{
public:
    QString translate(const char* inContext, const char* inText, const char*, int) const override
    {
        if (qstrcmp(inContext, "WidgetProgress") != 0)
            return QString();
        if (qstrcmp(inText, "Close") == 0)
            return QStringLiteral("Schliessen");
        if (qstrcmp(inText, "Show Details") == 0)
            return QStringLiteral("Details anzeigen");
        return QString();
    }
    bool isEmpty() const override { return false; }
};

TEST_F(WidgetProgressTest, LanguageChangeRetranslatesTheTexts)
{
    GermanTranslator translator;
    QCoreApplication::installTranslator(&translator);
    QApplication::processEvents();
    EXPECT_EQ(QStringLiteral("Schliessen"), child<QPushButton>("mButtonClose")->text());
    EXPECT_EQ(QStringLiteral("Details anzeigen"), child<QCheckBox>("mButtonDetails")->text());
    QCoreApplication::removeTranslator(&translator);
    QApplication::processEvents();
    EXPECT_EQ(QStringLiteral("Close"), child<QPushButton>("mButtonClose")->text());
}

TEST_F(WidgetProgressTest, GradientOnLightThemesOnlyAndBackAfterAPaletteChange)
{
    const QPalette original = QApplication::palette();
    auto hasGradient = [this] {
        return mDialog->palette().brush(QPalette::Active, QPalette::Window).gradient() != nullptr;
    };
    EXPECT_TRUE(hasGradient());
    const QGradientStops stops = mDialog->palette().brush(QPalette::Window).gradient()->stops();
    ASSERT_EQ(2, stops.size());
    EXPECT_EQ(QColor(255, 255, 255), stops.first().second);
    EXPECT_EQ(QColor(217, 227, 238), stops.last().second);

    QPalette dark(QColor(40, 40, 40));
    QApplication::setPalette(dark);
    QApplication::processEvents();
    EXPECT_FALSE(hasGradient()) << "a dark theme keeps its own palette";
    QApplication::setPalette(original);
    QApplication::processEvents();
    EXPECT_TRUE(hasGradient()) << "not re-applied after the palette changed back";
}
}

#if defined(__SANITIZE_ADDRESS__)
// Font and platform caches live as long as the process; see src/app/LeakSuppressions.cpp.
extern "C" const char* __lsan_default_suppressions() { return "leak:libfontconfig.so\n"; }
#endif

// Widgets need a QApplication, which the shared test main does not create.
int main(int argc, char** argv)
{
    QTemporaryDir sandbox;
    if (sandbox.isValid())
    {
        setenv("HOME", (sandbox.path() + "/home").toLocal8Bit().constData(), 1);
        setenv("TMPDIR", sandbox.path().toLocal8Bit().constData(), 1);
    }
    setenv("QT_QPA_PLATFORM", "offscreen", 1);
    // No task-bar signals from a test run.
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
