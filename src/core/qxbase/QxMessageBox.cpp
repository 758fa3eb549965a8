#include "QxMessageBox.h"

#include <QApplication>
#include <QMessageBox>

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
    box.exec();
}
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
