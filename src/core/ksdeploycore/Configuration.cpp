#include "Configuration.h"

#include "Engine.h"
#include "Resource.h"
#include "SpecialFolders.h"

#include <cstring>

using namespace KsDeploy;

namespace
{
struct AutoEntry
{
    const char* name;
    Configuration::AutoValue value;
};

#define KS_AUTO(x)                                                                                                     \
    {                                                                                                                  \
#x, Configuration::x                                                                                           \
    }
const AutoEntry sAutoTable[Configuration::sAutoValueCount] = {
    KS_AUTO(WIN_ADMINTOOLS),
    KS_AUTO(WIN_ALTSTARTUP),
    KS_AUTO(WIN_APPDATA),
    KS_AUTO(WIN_BITBUCKET),
    KS_AUTO(WIN_CDBURN_AREA),
    KS_AUTO(WIN_COMMON_ADMINTOOLS),
    KS_AUTO(WIN_COMMON_ALTSTARTUP),
    KS_AUTO(WIN_COMMON_APPDATA),
    KS_AUTO(WIN_COMMON_DESKTOPDIRECTORY),
    KS_AUTO(WIN_COMMON_DOCUMENTS),
    KS_AUTO(WIN_COMMON_FAVORITES),
    KS_AUTO(WIN_COMMON_MUSIC),
    KS_AUTO(WIN_COMMON_OEM_LINKS),
    KS_AUTO(WIN_COMMON_PICTURES),
    KS_AUTO(WIN_COMMON_PROGRAMS),
    KS_AUTO(WIN_COMMON_STARTMENU),
    KS_AUTO(WIN_COMMON_STARTUP),
    KS_AUTO(WIN_COMMON_TEMPLATES),
    KS_AUTO(WIN_COMMON_VIDEO),
    KS_AUTO(WIN_COMPUTERSNEARME),
    KS_AUTO(WIN_CONNECTIONS),
    KS_AUTO(WIN_CONTROLS),
    KS_AUTO(WIN_COOKIES),
    KS_AUTO(WIN_DESKTOP),
    KS_AUTO(WIN_DESKTOPDIRECTORY),
    KS_AUTO(WIN_DRIVES),
    KS_AUTO(WIN_FAVORITES),
    KS_AUTO(WIN_FONTS),
    KS_AUTO(WIN_HISTORY),
    KS_AUTO(WIN_INTERNET),
    KS_AUTO(WIN_INTERNET_CACHE),
    KS_AUTO(WIN_LOCAL_APPDATA),
    KS_AUTO(WIN_MYDOCUMENTS),
    KS_AUTO(WIN_MYMUSIC),
    KS_AUTO(WIN_MYPICTURES),
    KS_AUTO(WIN_MYVIDEO),
    KS_AUTO(WIN_NETHOOD),
    KS_AUTO(WIN_NETWORK),
    KS_AUTO(WIN_PERSONAL),
    KS_AUTO(WIN_PRINTERS),
    KS_AUTO(WIN_PRINTHOOD),
    KS_AUTO(WIN_PROFILE),
    KS_AUTO(WIN_PROGRAM_FILES),
    KS_AUTO(WIN_PROGRAM_FILESX86),
    KS_AUTO(WIN_PROGRAM_FILES_COMMON),
    KS_AUTO(WIN_PROGRAM_FILES_COMMONX86),
    KS_AUTO(WIN_PROGRAMS),
    KS_AUTO(WIN_RECENT),
    KS_AUTO(WIN_RESOURCES),
    KS_AUTO(WIN_RESOURCES_LOCALIZED),
    KS_AUTO(WIN_SENDTO),
    KS_AUTO(WIN_STARTMENU),
    KS_AUTO(WIN_STARTUP),
    KS_AUTO(WIN_SYSTEM),
    KS_AUTO(WIN_SYSTEMX86),
    KS_AUTO(WIN_TEMPLATES),
    KS_AUTO(WIN_WINDOWS),
};
#undef KS_AUTO
}

Configuration::Configuration() { autodetect(); }
Configuration::Configuration(const Configuration& inOther) : McHandable(inOther), mListOfValue(inOther.mListOfValue) {}
Configuration& Configuration::operator=(const Configuration& inOther)
{
    mListOfValue = inOther.mListOfValue;
    pathGenerationBump();
    return *this;
}
Configuration::~Configuration() = default;

void Configuration::autodetect()
{
    for (int i = 0; i < sAutoValueCount; ++i)
    {
        AutoValue v;
        Index2AutoValue(i, v);
        // The platform layer answers with a plain path, or nothing for a folder this system lacks.
        std::string path;
        if (!KsPlatform::specialFolderPath(static_cast<int>(v), path))
            continue;
        valueSet(QString::fromLatin1(sAutoTable[i].name), QString::fromLocal8Bit(path.c_str()), true);
    }
}

const char* Configuration::AutoValue2String(AutoValue inValue)
{
    for (const AutoEntry& e : sAutoTable)
        if (e.value == inValue)
            return e.name;
    MC_DBC_TEXT(DbCCheck, false, "0");
    return "AUTO_INVALID";
}

Configuration::AutoValue Configuration::String2AutoValue(const char* inName)
{
    if (inName)
        for (const AutoEntry& e : sAutoTable)
            if (std::strcmp(e.name, inName) == 0)
                return e.value;
    MC_DBC_TEXT(DbCCheck, false, "0");
    return static_cast<AutoValue>(0);
}

bool Configuration::Index2AutoValue(int inIndex, AutoValue& outValue)
{
    if (inIndex < 0 || inIndex >= sAutoValueCount)
    {
        outValue = static_cast<AutoValue>(0);
        return false;
    }
    outValue = sAutoTable[inIndex].value;
    return true;
}

void Configuration::valueSet(const QString& inKey, const QString& inValue, bool inFlag)
{
    mListOfValue.insert(inKey, qMakePair(inFlag, inValue));
    pathGenerationBump();
}

QString Configuration::value(const QString& inKey) const
{
    auto it = mListOfValue.constFind(inKey);
    return it == mListOfValue.constEnd() ? QString() : it.value().second;
}

bool Configuration::valueIsDefined(const QString& inKey) const { return mListOfValue.contains(inKey); }
void Configuration::valueClear(const QString& inKey)
{
    mListOfValue.remove(inKey);
    pathGenerationBump();
}
void Configuration::valueClearAll()
{
    mListOfValue.clear();
    pathGenerationBump();
}
QList<QString> Configuration::keys() const { return mListOfValue.keys(); }

bool Configuration::isResolved(const QString& inExpression) const
{
    return !inExpression.contains(QLatin1String("${"), Qt::CaseSensitive);
}

// One pass over the text: each "${KEY}" whose key is defined is replaced by its value. Looking
// the keys up where they occur, instead of trying every defined key on the text, keeps paths
// cheap to resolve however many values the configuration holds.
void Configuration::substituteDefined(QString& inoutExpression) const
{
    const QLatin1String open("${");
    qsizetype start = inoutExpression.indexOf(open);
    if (start < 0)
        return;
    QString out;
    out.reserve(inoutExpression.size());
    qsizetype pos = 0;
    while (start >= 0)
    {
        const qsizetype end = inoutExpression.indexOf(QLatin1Char('}'), start + 2);
        if (end < 0)
            break;
        const qsizetype inner = inoutExpression.indexOf(open, start + 2);
        if (inner >= 0 && inner < end)
        {
            // "${A${B}}": the inner reference first; the outer one may form in the next pass.
            start = inner;
            continue;
        }
        const auto it = mListOfValue.constFind(inoutExpression.mid(start + 2, end - start - 2));
        if (it != mListOfValue.constEnd())
        {
            out += QStringView(inoutExpression).mid(pos, start - pos);
            out += it.value().second;
            pos = end + 1;
        }
        start = inoutExpression.indexOf(open, end + 1);
    }
    if (pos == 0)
        return;
    out += QStringView(inoutExpression).mid(pos);
    inoutExpression = out;
}

bool Configuration::resolveQuietly(QString& inoutExpression) const
{
    // As many passes as resolve allows; a cycle ends unresolved.
    for (int pass = 0; pass <= 1000 && !isResolved(inoutExpression); ++pass)
    {
        const QString before = inoutExpression;
        substituteDefined(inoutExpression);
        if (inoutExpression == before)
            break;
    }
    return isResolved(inoutExpression);
}

QStringList Configuration::unresolvedKeys(const QString& inExpression) const
{
    QStringList keys;
    const QLatin1String open("${");
    qsizetype start = inExpression.indexOf(open);
    while (start >= 0)
    {
        const qsizetype end = inExpression.indexOf(QLatin1Char('}'), start + 2);
        if (end < 0)
            break;
        const qsizetype inner = inExpression.indexOf(open, start + 2);
        if (inner >= 0 && inner < end)
        {
            start = inner;
            continue;
        }
        const QString key = inExpression.mid(start + 2, end - start - 2);
        if (!keys.contains(key))
            keys.append(key);
        start = inExpression.indexOf(open, end + 1);
    }
    return keys;
}

std::string Configuration::unresolvedDetail(const QString& inGiven, const QString& inLeft) const
{
    QStringList missing, cyclic;
    for (const QString& key : unresolvedKeys(inLeft))
        (valueIsDefined(key) ? cyclic : missing).append(key);
    QString why;
    if (!missing.isEmpty())
        why = QStringLiteral("no value for %1").arg(missing.join(QLatin1String(", ")));
    if (!cyclic.isEmpty())
        why += QStringLiteral("%1%2 never settles (its value leads back to itself)")
                   .arg(why.isEmpty() ? QString() : QStringLiteral("; "), cyclic.join(QLatin1String(", ")));
    if (why.isEmpty())
        why = QStringLiteral("an unterminated reference");
    return mcMessageText(QStringLiteral("%1: %2").arg(inGiven, why));
}

McResult Configuration::resolve(QString& inoutExpression)
{
    const QString given = inoutExpression;
    McResult retVal;
    Engine& engine = Engine::instance();
    if (isResolved(inoutExpression))
        return retVal;
    // The usual case, references to defined values that resolve completely, takes the quick
    // route; whatever does not (undefined keys, cycles) goes the full way with its reports.
    QString quick = inoutExpression;
    for (int pass = 0; pass < 16 && !isResolved(quick); ++pass)
        substituteDefined(quick);
    if (isResolved(quick))
    {
        inoutExpression = quick;
        return retVal;
    }

    int maxLoop = 1000;
    for (;;)
    {
        const QString before = inoutExpression;
        for (auto it = mListOfValue.constBegin(); it != mListOfValue.constEnd(); ++it)
        {
            const QString pattern = QStringLiteral("${%1}").arg(it.key());
            inoutExpression.replace(pattern, it.value().second, Qt::CaseSensitive);
        }
        if (MC_CHECK(retVal, maxLoop--, "cyclic variable substitution"))
        {
            engine.trace(McLogLevelError, QStringLiteral("resolve(): recursion detected in [%1]").arg(given));
            break;
        }
        if (inoutExpression == before)
            break;
    }
    // Our line under the report names the keys that have no value.
    if (MC_CHECK_DETAIL(retVal, isResolved(inoutExpression), "Internal Error", unresolvedDetail(given, inoutExpression)))
        engine.trace(McLogLevelError, QStringLiteral("resolve(): unable to resolve: [%1]").arg(given));
    MC_DBC_TEXT(DbCPostcondition, !retVal.isOk() || isResolved(inoutExpression),
                "ifThen( retVal.isOk(), isResolved(inoutExpression) )");
    return retVal;
}

McResult Configuration::resolve(QString& inoutExpression, const QString& inTargetKey)
{
    const QString given = inoutExpression;
    McResult retVal;
    if (isResolved(inoutExpression))
        return retVal;
    if (MC_CHECK(retVal, valueIsDefined(inTargetKey), "key not registered"))
        return retVal;

    const QString pattern = QStringLiteral("${%1}").arg(inTargetKey);
    int maxLoop = 1000;
    for (;;)
    {
        const QString before = inoutExpression;
        inoutExpression.replace(pattern, value(inTargetKey), Qt::CaseSensitive);
        if (MC_CHECK(retVal, maxLoop--, "cyclic variable substitution"))
        {
            Engine::instance().trace(McLogLevelError,
                                     QStringLiteral("resolve(): recursion detected in [%1]").arg(given));
            break;
        }
        if (inoutExpression == before)
            break;
    }
    if (MC_CHECK(retVal, !inoutExpression.contains(pattern), "Internal Error"))
        Engine::instance().trace(McLogLevelError, QStringLiteral("resolve(): unable to resolve: [%1]").arg(given));
    return retVal;
}
