#include "WidgetProgress.h"

#include "Engine.h"
#include "QxMessageBox.h"

#include <QApplication>
#include <QCheckBox>
#include <QCloseEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QSignalBlocker>
#include <QSpacerItem>
#include <QTextCursor>
#include <QVBoxLayout>

#include <climits>
#include <cmath>

using namespace KsDeploy;

namespace
{
// Long enough that a run of tiny files spends its time working, short enough to look live.
const qint64 sEventInterval = 40;

QString trWp(const char* inText) { return QCoreApplication::translate("WidgetProgress", inText); }
}

bool WidgetProgress::available() { return qobject_cast<QApplication*>(QCoreApplication::instance()) != nullptr; }

WidgetProgress::WidgetProgress(QWidget* inParent) : QxDialog(inParent), mUi(new Ui)
{
    contentBuild(content());
    retranslate();
    QFont font = title()->font();
    font.setPointSize(15);
    title()->setFont(font);

    connect(mUi->mButtonDetails, &QCheckBox::toggled, this, &WidgetProgress::slot_DetailsSetVisible);
    connect(mUi->mButtonClose, &QPushButton::clicked, this, [this](bool) { close(); });

    mUi->mMessageText->hide();
    setVisible(true);
    QxDialog::raise();
}

WidgetProgress::~WidgetProgress() { mLauncherEntry.visibleSet(false); }

void WidgetProgress::contentBuild(QWidget* inContent)
{
    if (inContent->objectName().isEmpty())
        inContent->setObjectName(QStringLiteral("WidgetProgress"));
    inContent->resize(506, 503);

    mUi->verticalLayout = new QVBoxLayout(inContent);
    mUi->verticalLayout->setObjectName(QStringLiteral("verticalLayout"));

    mUi->mLabelOperation = new QLabel(inContent);
    mUi->mLabelOperation->setObjectName(QStringLiteral("mLabelOperation"));
    mUi->mLabelOperation->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
    mUi->verticalLayout->addWidget(mUi->mLabelOperation);

    mUi->mProgress = new QProgressBar(inContent);
    mUi->mProgress->setObjectName(QStringLiteral("mProgress"));
    mUi->mProgress->setRange(0, 10000);
    mUi->mProgress->setValue(0);
    mUi->mProgress->setTextVisible(false);
    mUi->verticalLayout->addWidget(mUi->mProgress);

    mUi->horizontalLayout = new QHBoxLayout();
    mUi->horizontalLayout->setObjectName(QStringLiteral("horizontalLayout"));
    mUi->mButtonDetails = new QCheckBox(inContent);
    mUi->mButtonDetails->setObjectName(QStringLiteral("mButtonDetails"));
    mUi->horizontalLayout->addWidget(mUi->mButtonDetails);
    mUi->horizontalLayout->addItem(new QSpacerItem(300, 20, QSizePolicy::Expanding, QSizePolicy::Minimum));
    mUi->mButtonClose = new QPushButton(inContent);
    mUi->mButtonClose->setObjectName(QStringLiteral("mButtonClose"));
    mUi->mButtonClose->setEnabled(false);
    mUi->horizontalLayout->addWidget(mUi->mButtonClose);
    mUi->verticalLayout->addLayout(mUi->horizontalLayout);

    mUi->mMessageText = new QPlainTextEdit(inContent);
    mUi->mMessageText->setObjectName(QStringLiteral("mMessageText"));
    mUi->mMessageText->setMinimumSize(200, 400);
    mUi->mMessageText->setDocumentTitle(QString());
    mUi->mMessageText->setUndoRedoEnabled(false);
    mUi->mMessageText->setLineWrapMode(QPlainTextEdit::NoWrap);
    mUi->mMessageText->setReadOnly(true);
    mUi->mMessageText->setPlainText(QString());
    mUi->verticalLayout->addWidget(mUi->mMessageText);
}

void WidgetProgress::retranslate()
{
    const QString windowTitle = trWp("Kestra Imaging");
    content()->setWindowTitle(windowTitle);
    setWindowTitle(windowTitle);
    title()->setText(windowTitle);
    mUi->mButtonDetails->setText(trWp("Show Details"));
    mUi->mButtonClose->setText(trWp("Close"));

    // What a screen reader announces for each part of the dialog.
    setAccessibleName(windowTitle);
    setAccessibleDescription(trWp("Shows the progress of the current operation"));
    content()->setAccessibleName(trWp("Progress"));
    content()->setAccessibleDescription(trWp("The current operation, its progress and its log"));
    mUi->mLabelOperation->setAccessibleName(trWp("Current operation"));
    mUi->mLabelOperation->setAccessibleDescription(trWp("The name of the operation that runs now"));
    mUi->mProgress->setAccessibleName(trWp("Progress of the current operation"));
    mUi->mProgress->setAccessibleDescription(trWp("How much of the current operation is done"));
    mUi->mButtonDetails->setAccessibleName(trWp("Show Details"));
    mUi->mButtonDetails->setAccessibleDescription(trWp("Shows or hides the log of everything done so far"));
    mUi->mButtonClose->setAccessibleName(trWp("Close"));
    mUi->mButtonClose->setAccessibleDescription(trWp("Closes this window once the work is done"));
    mUi->mMessageText->setAccessibleName(trWp("Log"));
    mUi->mMessageText->setAccessibleDescription(trWp("Every line written so far"));
}

void WidgetProgress::taskCountSet(unsigned int inCount) { mLastTaskIndex = static_cast<int32_t>(inCount - 1u); }

void WidgetProgress::taskStartNext(const QString& inTaskName)
{
    progressSet(0.0f);
    mOperationText = inTaskName;
    mUi->mProgress->setAccessibleDescription(inTaskName);
    const QString text = QStringLiteral("%1%2\n").arg(mLogIsEmpty ? QString() : QStringLiteral("\n\n"), inTaskName);
    Engine::instance().trace(McLogLevelInfo, text);
    dialogUpdate();
}

void WidgetProgress::print(const QString& inText)
{
    mListOfPendingLine.append(inText);
    mLogIsEmpty = false;
    MC_DBC_TEXT(DbCPrecondition, QCoreApplication::instance() != nullptr, "QCoreApplication::instance()!=0");
    eventsProcess(false);
}

void WidgetProgress::reportUpdateFailure()
{
    QxMessageBox::warning(this, QString(), trWp("Automatic update has failed.\nPlease install manually."));
    show();
    makeCloseable();
}

void WidgetProgress::progressSet(float inFraction)
{
    if (inFraction == mFraction)
        return;
    mFraction = inFraction;
    dialogUpdate();
}

float WidgetProgress::progress() { return mFraction; }

void WidgetProgress::makeCloseable()
{
    mUi->mButtonClose->setEnabled(true);
    eventsProcess(true);
}

void WidgetProgress::show() { QxDialog::show(); }

void WidgetProgress::close()
{
    logFlush();
    QxDialog::close();
}

void WidgetProgress::raise() { QxDialog::raise(); }

QString WidgetProgress::logText()
{
    logFlush();
    return mUi->mMessageText->toPlainText();
}

void WidgetProgress::dialogUpdate()
{
    mUi->mLabelOperation->setText(mOperationText);
    // Truncated toward zero; a NaN or a value beyond int gives the bar something it ignores
    // instead of an undefined conversion.
    const double scaled = static_cast<double>(mUi->mProgress->maximum()) * static_cast<double>(progress());
    int value = INT_MIN;
    if (!std::isnan(scaled))
        value = scaled >= static_cast<double>(INT_MAX)   ? INT_MAX
                : scaled <= static_cast<double>(INT_MIN) ? INT_MIN
                                                         : static_cast<int>(scaled);
    mUi->mProgress->setValue(value);
    mLauncherEntry.progressSet(static_cast<double>(progress()));
    eventsProcess(false);
}

void WidgetProgress::eventsProcess(bool inForce)
{
    if (!inForce && mSinceEvents.isValid() && mSinceEvents.elapsed() < sEventInterval)
        return;
    logFlush();
    if (QCoreApplication::instance())
        QCoreApplication::processEvents();
    mSinceEvents.start();
}

void WidgetProgress::logFlush()
{
    if (mListOfPendingLine.isEmpty())
        return;
    // One paragraph per printed text, appended together: the same document as one append each.
    mUi->mMessageText->appendPlainText(mListOfPendingLine.join(QLatin1Char('\n')));
    mListOfPendingLine.clear();
    mUi->mMessageText->moveCursor(QTextCursor::End);
    mUi->mMessageText->moveCursor(QTextCursor::StartOfLine);
}

void WidgetProgress::slot_DetailsSetVisible(bool inVisible)
{
    QRect geometry = this->geometry();
    int height = 10;
    if (inVisible)
    {
        height = mDetailsHeight;
    }
    else
    {
        mDetailsHeight = geometry.height();
    }
    logFlush();
    mUi->mMessageText->setVisible(inVisible);
    MC_DBC_TEXT(DbCPrecondition, QCoreApplication::instance() != nullptr, "QCoreApplication::instance()!=0");
    // The layout needs these passes to settle before and after the resize.
    for (int i = 0; i < 3; ++i)
        QCoreApplication::processEvents();
    geometry.setHeight(height);
    setGeometry(geometry);
    for (int i = 0; i < 3; ++i)
        QCoreApplication::processEvents();
    mSinceEvents.start();
    if (mUi->mButtonDetails->isChecked() != inVisible)
    {
        // Its toggled signal leads here; once is enough.
        const QSignalBlocker blocker(mUi->mButtonDetails);
        mUi->mButtonDetails->setChecked(inVisible);
    }
}

void WidgetProgress::changeEvent(QEvent* inEvent)
{
    if (inEvent->type() == QEvent::LanguageChange)
        retranslate();
    QxDialog::changeEvent(inEvent);
}

void WidgetProgress::closeEvent(QCloseEvent* inEvent)
{
    if (!mUi->mButtonClose->isEnabled())
    {
        inEvent->ignore();
        return;
    }
    mLauncherEntry.visibleSet(false);
    // Not the dialog's own close handling: it would call reject(), which closes again.
    QWidget::closeEvent(inEvent);
}

void WidgetProgress::reject() { close(); }
