#include "QxMessageBox.h"

#include <QAbstractButton>
#include <QApplication>
#include <QClipboard>
#include <QMessageBox>
#include <QShortcut>

#include <cstdio>

const char* const QxMessageBox::sObjectName = "QxMessageBox";

namespace
{
bool widgetsAvailable() { return qobject_cast<QApplication*>(QCoreApplication::instance()) != nullptr; }

void boxRun(QWidget* inParent, QxMessageBox::Icon inIcon, const QString& inCaption, const QString& inText)
{
    QMessageBox box(inIcon == QxMessageBox::IconWarning ? QMessageBox::Warning : QMessageBox::Information, inCaption,
                    inText, QMessageBox::Ok, inParent);
    box.setObjectName(QString::fromLatin1(QxMessageBox::sObjectName));
    box.setAccessibleName(inCaption.isEmpty() ? inText.section(QLatin1Char('\n'), 0, 0) : inCaption);
    box.setAccessibleDescription(inText);
    QxMessageBox::copyableSet(box);
    box.exec();
}
}

void QxMessageBox::copyableSet(QMessageBox& inoutBox)
{
    QMessageBox* box = &inoutBox;
    auto* copy = new QShortcut(QKeySequence::Copy, box);
    QObject::connect(copy, &QShortcut::activated, box, [box]() {
        const QString rule = QStringLiteral("---------------------------\n");
        QString buttons;
        for (QAbstractButton* button : box->buttons())
            buttons += button->text().remove(QLatin1Char('&')) + QStringLiteral("   ");
        QGuiApplication::clipboard()->setText(rule + box->windowTitle() + QLatin1Char('\n') + rule + box->text() +
                                              QLatin1Char('\n') + rule + buttons + QLatin1Char('\n') + rule);
    });
}

void QxMessageBox::show(QWidget* inParent, Icon inIcon, const QString& inCaption, const QString& inText)
{
    if (widgetsAvailable())
    {
        boxRun(inParent, inIcon, inCaption, inText);
        return;
    }
    FILE* stream = inIcon == IconWarning ? stderr : stdout;
    std::fprintf(stream, "%s\n", inText.toLatin1().constData());
    std::fflush(stream);
}

void QxMessageBox::informationWait(QWidget* inParent, const QString& inCaption, const QString& inText)
{
    if (widgetsAvailable())
    {
        boxRun(inParent, IconInformation, inCaption, inText);
        return;
    }
    std::fprintf(stdout, "%s\n", inText.toLatin1().constData());
    std::fflush(stdout);
    int c = 0;
    while ((c = std::getchar()) != EOF && c != '\n')
    {
    }
}
