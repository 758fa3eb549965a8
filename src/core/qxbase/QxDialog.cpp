#include "QxDialog.h"

#include <QApplication>
#include <QEvent>
#include <QFrame>
#include <QGridLayout>
#include <QLabel>
#include <QLinearGradient>
#include <QPixmap>
#include <QSpacerItem>
#include <QVBoxLayout>

QxDialog::QxDialog(QWidget* inParent) : QDialog(inParent)
{
    frameBuild();
    paletteApply();
    QCoreApplication::instance()->installEventFilter(this);
}

QxDialog::~QxDialog() = default;

void QxDialog::frameBuild()
{
    if (objectName().isEmpty())
        setObjectName(QStringLiteral("KestraLayoutBase"));
    setWindowTitle(QString());

    mGridLayout = new QGridLayout(this);
    mGridLayout->setObjectName(QStringLiteral("gridLayout"));
    mGridLayout->setVerticalSpacing(0);
    {
        int left = 0, top = 0, right = 0, bottom = 0;
        mGridLayout->getContentsMargins(&left, &top, &right, &bottom);
        mGridLayout->setContentsMargins(left, 0, right, bottom);
    }

    mLogo = new QLabel(this);
    mLogo->setObjectName(QStringLiteral("mLogo"));
    mLogo->setText(QString());
    mLogo->setPixmap(QPixmap(QStringLiteral(":/Kestra7")));
    mLogo->setAccessibleName(QCoreApplication::translate("QxDialog", "Logo"));
    mLogo->setAccessibleDescription(QCoreApplication::translate("QxDialog", "The product logo"));
    mGridLayout->addWidget(mLogo, 0, 0, 1, 1);

    mVerticalLayout = new QVBoxLayout();
    mVerticalLayout->setObjectName(QStringLiteral("verticalLayout"));
    {
        int left = 0, top = 0, right = 0, bottom = 0;
        mVerticalLayout->getContentsMargins(&left, &top, &right, &bottom);
        mVerticalLayout->setContentsMargins(left, top, right, 20);
    }
    mVerticalLayout->addItem(new QSpacerItem(0, 0, QSizePolicy::Minimum, QSizePolicy::Expanding));

    mTitle = new QLabel(this);
    mTitle->setObjectName(QStringLiteral("mTitle"));
    QFont font;
    font.setPointSize(20);
    font.setWeight(QFont::Normal);
    font.setItalic(false);
    font.setStrikeOut(false);
    font.setKerning(true);
    font.setStyleStrategy(QFont::PreferAntialias);
    mTitle->setFont(font);
    mTitle->setText(QStringLiteral("TextLabel"));
    mTitle->setMargin(0);
    mTitle->setIndent(5);
    mTitle->setAccessibleName(QCoreApplication::translate("QxDialog", "Title"));
    mTitle->setAccessibleDescription(QCoreApplication::translate("QxDialog", "The title of this window"));
    mVerticalLayout->addWidget(mTitle, 0, Qt::AlignRight);
    mGridLayout->addLayout(mVerticalLayout, 0, 1, 1, 1);

    mLine = new QFrame(this);
    mLine->setObjectName(QStringLiteral("mLine"));
    mLine->setFrameShape(QFrame::HLine);
    mLine->setFrameShadow(QFrame::Sunken);
    mLine->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    mLine->setAccessibleName(QCoreApplication::translate("QxDialog", "Separator"));
    mLine->setAccessibleDescription(QCoreApplication::translate("QxDialog", "Separates the title from the content"));
    mGridLayout->addWidget(mLine, 1, 0, 1, 2);

    mContent = new QWidget(this);
    mContent->setObjectName(QStringLiteral("mContent"));
    mContent->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    mGridLayout->addWidget(mContent, 2, 0, 1, 2);
    mGridLayout->setRowStretch(2, 1);
}

void QxDialog::paletteApply()
{
    // Start from the application's palette so a theme change is seen, not our last gradient.
    QPalette palette = QApplication::palette(this);
    if (palette.color(QPalette::Active, QPalette::Window).value() <= 128)
    {
        mPaletteApplying = true;
        setPalette(palette);
        mPaletteApplying = false;
        return;
    }
    QLinearGradient gradient(0.0, 0.0, 0.0, 1.0);
    gradient.setCoordinateMode(QGradient::ObjectBoundingMode);
    gradient.setColorAt(0.0, QColor(255, 255, 255));
    gradient.setColorAt(1.0, QColor(217, 227, 238, 255));
    const QBrush brush(gradient);
    for (const QPalette::ColorGroup group : {QPalette::Active, QPalette::Inactive, QPalette::Disabled})
        palette.setBrush(group, backgroundRole(), brush);
    mPaletteApplying = true;
    setPalette(palette);
    mPaletteApplying = false;
}

bool QxDialog::eventFilter(QObject* inWatched, QEvent* inEvent)
{
    // A top-level window hears of a new application palette only through the application.
    if (inWatched == QCoreApplication::instance() && inEvent->type() == QEvent::ApplicationPaletteChange &&
        !mPaletteApplying)
        paletteApply();
    return QDialog::eventFilter(inWatched, inEvent);
}
