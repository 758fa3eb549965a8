#pragma once
#include "KsGlobal.h"

#include <QHash>
#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

#include <string>

namespace KsDeploy
{
// The variable store: name -> (automatic flag, text). Texts may hold ${NAME} references.
class Configuration : public McHandable
{
public:
    // Values are the Windows shell special-folder numbers.
    enum AutoValue
    {
        WIN_ADMINTOOLS = 48,
        WIN_ALTSTARTUP = 29,
        WIN_APPDATA = 26,
        WIN_BITBUCKET = 10,
        WIN_CDBURN_AREA = 59,
        WIN_COMMON_ADMINTOOLS = 47,
        WIN_COMMON_ALTSTARTUP = 30,
        WIN_COMMON_APPDATA = 35,
        WIN_COMMON_DESKTOPDIRECTORY = 25,
        WIN_COMMON_DOCUMENTS = 46,
        WIN_COMMON_FAVORITES = 31,
        WIN_COMMON_MUSIC = 53,
        WIN_COMMON_OEM_LINKS = 58,
        WIN_COMMON_PICTURES = 54,
        WIN_COMMON_PROGRAMS = 23,
        WIN_COMMON_STARTMENU = 22,
        WIN_COMMON_STARTUP = 24,
        WIN_COMMON_TEMPLATES = 45,
        WIN_COMMON_VIDEO = 55,
        WIN_COMPUTERSNEARME = 61,
        WIN_CONNECTIONS = 49,
        WIN_CONTROLS = 3,
        WIN_COOKIES = 33,
        WIN_DESKTOP = 0,
        WIN_DESKTOPDIRECTORY = 16,
        WIN_DRIVES = 17,
        WIN_FAVORITES = 6,
        WIN_FONTS = 20,
        WIN_HISTORY = 34,
        WIN_INTERNET = 1,
        WIN_INTERNET_CACHE = 32,
        WIN_LOCAL_APPDATA = 28,
        WIN_MYDOCUMENTS = 12,
        WIN_MYMUSIC = 13,
        WIN_MYPICTURES = 39,
        WIN_MYVIDEO = 14,
        WIN_NETHOOD = 19,
        WIN_NETWORK = 18,
        WIN_PERSONAL = 5,
        WIN_PRINTERS = 4,
        WIN_PRINTHOOD = 27,
        WIN_PROFILE = 40,
        WIN_PROGRAM_FILES = 38,
        WIN_PROGRAM_FILESX86 = 42,
        WIN_PROGRAM_FILES_COMMON = 43,
        WIN_PROGRAM_FILES_COMMONX86 = 44,
        WIN_PROGRAMS = 2,
        WIN_RECENT = 8,
        WIN_RESOURCES = 56,
        WIN_RESOURCES_LOCALIZED = 57,
        WIN_SENDTO = 9,
        WIN_STARTMENU = 11,
        WIN_STARTUP = 7,
        WIN_SYSTEM = 37,
        WIN_SYSTEMX86 = 41,
        WIN_TEMPLATES = 21,
        WIN_WINDOWS = 36,
    };
    static const int sAutoValueCount = 57;

    Configuration();
    Configuration(const Configuration& inOther);
    Configuration& operator=(const Configuration& inOther);
    ~Configuration() override;

    void autodetect();

    static const char* AutoValue2String(AutoValue inValue);
    static AutoValue String2AutoValue(const char* inName);
    static bool Index2AutoValue(int inIndex, AutoValue& outValue);

    void valueSet(const QString& inKey, const QString& inValue, bool inFlag);
    QString value(const QString& inKey) const;
    bool valueIsDefined(const QString& inKey) const;
    void valueClear(const QString& inKey);
    void valueClearAll();
    QList<QString> keys() const;

    bool isResolved(const QString& inExpression) const;
    McResult resolve(QString& inoutExpression);
    McResult resolve(QString& inoutExpression, const QString& inTargetKey);
    // Resolves as far as the defined values allow without reporting anything; true when the
    // result holds no reference any more. For checking many texts before any of them is used.
    bool resolveQuietly(QString& inoutExpression) const;
    // The keys of the references left in a text, each once, in order of appearance.
    QStringList unresolvedKeys(const QString& inExpression) const;

private:
    void substituteDefined(QString& inoutExpression) const;
    // "<text>: no value for KEY", the line under a failed resolution.
    std::string unresolvedDetail(const QString& inGiven, const QString& inLeft) const;
    QHash<QString, QPair<bool, QString>> mListOfValue;
};
}
