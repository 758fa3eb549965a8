#pragma once
#include "LauncherEntry.h"
#include "Progress.h"
#include "QxDialog.h"

#include <QElapsedTimer>
#include <QStringList>

#include <memory>

class QCheckBox;
class QHBoxLayout;
class QLabel;
class QPlainTextEdit;
class QProgressBar;
class QPushButton;
class QVBoxLayout;

namespace KsDeploy
{
// The progress dialog: the current operation, a bar, a log that folds out, and a Close button
// that stays disabled (and every other way of closing refused) until the work is done.
class WidgetProgress : public QxDialog, public Progress
{
    Q_OBJECT

public:
    explicit WidgetProgress(QWidget* inParent);
    ~WidgetProgress() override;

    void taskCountSet(unsigned int inCount) override;
    void taskStartNext(const QString& inTaskName) override;
    void print(const QString& inText) override;
    void reportUpdateFailure() override;
    void progressSet(float inFraction) override;
    float progress() override;
    void makeCloseable() override;
    void show() override;
    void close() override;
    void raise() override;

    // Everything printed so far, lines still waiting for the next repaint included.
    QString logText();
    int lastTaskIndex() const { return mLastTaskIndex; }
    int detailsHeight() const { return mDetailsHeight; }
    int reservedIndex() const { return mReservedIndex; }

    // Whether a widget application exists, i.e. whether a dialog can be shown at all.
    static bool available();

public slots:
    void slot_DetailsSetVisible(bool inVisible);

protected:
    void changeEvent(QEvent* inEvent) override;
    void closeEvent(QCloseEvent* inEvent) override;
    void reject() override;

private:
    // The widgets of the content, owned by their Qt parents.
    struct Ui
    {
        QVBoxLayout* verticalLayout = nullptr;
        QLabel* mLabelOperation = nullptr;
        QProgressBar* mProgress = nullptr;
        QHBoxLayout* horizontalLayout = nullptr;
        QCheckBox* mButtonDetails = nullptr;
        QPushButton* mButtonClose = nullptr;
        QPlainTextEdit* mMessageText = nullptr;
    };

    void contentBuild(QWidget* inContent);
    void retranslate();
    void dialogUpdate();
    // Lets the window system repaint and handle input. Throttled unless inForce: a product of
    // many thousand files prints a line per file, and a repaint per line would cost more than
    // the work itself. Lines are kept and appended in one go before each repaint.
    void eventsProcess(bool inForce);
    void logFlush();

    std::unique_ptr<Ui> mUi;
    QString mOperationText;
    int32_t mReservedIndex = -1;
    int32_t mLastTaskIndex = -1;
    int32_t mDetailsHeight = 600;
    float mFraction = 0.0f;

    QStringList mListOfPendingLine;
    bool mLogIsEmpty = true;
    QElapsedTimer mSinceEvents;
    LauncherEntry mLauncherEntry;
};
}
