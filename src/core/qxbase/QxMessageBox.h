#pragma once
#include "QxGlobal.h"

#include <QString>

class QMessageBox;
class QWidget;

// Blocking message boxes with a single OK button. Without a widget application (no display)
// the text goes to the console instead, so callers never need to know which host they run in.
class QxMessageBox
{
public:
    enum Icon
    {
        IconInformation,
        IconWarning
    };

    // Shows the box and returns when it is closed.
    static void show(QWidget* inParent, Icon inIcon, const QString& inCaption, const QString& inText);
    static void information(QWidget* inParent, const QString& inCaption, const QString& inText)
    {
        show(inParent, IconInformation, inCaption, inText);
    }
    static void warning(QWidget* inParent, const QString& inCaption, const QString& inText)
    {
        show(inParent, IconWarning, inCaption, inText);
    }
    // On a console: also waits for Enter on standard input (the debug pause).
    static void informationWait(QWidget* inParent, const QString& inCaption, const QString& inText);

    // Ctrl+C in the box puts its title, text and buttons on the clipboard, so that a user can
    // paste a failure into a report.
    static void copyableSet(QMessageBox& inoutBox);

    // Object name of the box, so tests and accessibility tools can find it.
    static const char* const sObjectName;
};
