#pragma once
#include "QxGlobal.h"

#include <QDialog>

class QFrame;
class QGridLayout;
class QLabel;
class QVBoxLayout;

// The dialog base of our windows: the logo and title on top, a line, and a content area that
// the derived dialog fills. On a light theme the frame carries the house gradient, white at the
// top to a pale blue at the bottom, and gets it back whenever the application palette changes.
class QxDialog : public QDialog
{
    Q_OBJECT

public:
    explicit QxDialog(QWidget* inParent = nullptr);
    ~QxDialog() override;

    // The widget a derived dialog builds its content in ("mContent").
    QWidget* content() const { return mContent; }
    QLabel* title() const { return mTitle; }

    // Applies the gradient when the palette's window colour is light; a dark theme keeps its
    // palette as it is.
    void paletteApply();

protected:
    bool eventFilter(QObject* inWatched, QEvent* inEvent) override;

private:
    void frameBuild();

    QGridLayout* mGridLayout = nullptr;
    QLabel* mLogo = nullptr;
    QVBoxLayout* mVerticalLayout = nullptr;
    QLabel* mTitle = nullptr;
    QFrame* mLine = nullptr;
    QWidget* mContent = nullptr;
    // Guards against the palette change our own setPalette causes.
    bool mPaletteApplying = false;
};
