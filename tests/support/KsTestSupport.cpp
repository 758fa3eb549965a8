#include "KsTestSupport.h"
#include "RegistryStore.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace
{
std::vector<KsTest::ContractEvent> sEvents;
std::vector<KsTest::Failure> sFailures;
std::vector<KsTest::LogLine> sLines;

void onContract(DbCEventType inType, const char* inCondition, const char* inFile, unsigned int, const char* inFunction,
                const char*)
{
    sEvents.push_back(
        {static_cast<int>(inType), inCondition ? inCondition : "", inFile ? inFile : "", inFunction ? inFunction : ""});
}

bool onFailure(const McResult& inResult)
{
    sFailures.push_back({inResult.text(), inResult.condition(), inResult.location(), inResult.detail()});
    return true;
}

void onLog(McLogLevel inLevel, const McString& inText) { sLines.push_back({static_cast<int>(inLevel), inText.str()}); }
}

namespace KsTest
{
ContractRecorder::ContractRecorder()
{
    sEvents.clear();
    mc_DbC_callbackSet(&onContract);
}
ContractRecorder::~ContractRecorder() { mc_DbC_callbackSet(nullptr); }
const std::vector<ContractEvent>& ContractRecorder::events() const { return sEvents; }
bool ContractRecorder::has(const std::string& inCondition) const { return count(inCondition) > 0; }
size_t ContractRecorder::count(const std::string& inCondition) const
{
    size_t n = 0;
    for (const auto& e : sEvents)
        n += (e.condition == inCondition);
    return n;
}
void ContractRecorder::clear() { sEvents.clear(); }

FailureRecorder::FailureRecorder()
{
    sFailures.clear();
    McResult::notificationCallbackAdd(&onFailure);
}
FailureRecorder::~FailureRecorder() { McResult::notificationCallbackRemove(&onFailure); }
const std::vector<Failure>& FailureRecorder::failures() const { return sFailures; }
bool FailureRecorder::hasMessage(const std::string& inMessage) const
{
    for (const auto& f : sFailures)
        if (f.message == inMessage)
            return true;
    return false;
}
bool FailureRecorder::hasCondition(const std::string& inCondition) const
{
    for (const auto& f : sFailures)
        if (f.condition == inCondition)
            return true;
    return false;
}
void FailureRecorder::clear() { sFailures.clear(); }

LogRecorder::LogRecorder()
{
    sLines.clear();
    getTheLogInstance().setWriteCallback(&onLog, McLogLevelInfo);
}
LogRecorder::~LogRecorder() { getTheLogInstance().setWriteCallback(nullptr, McLogLevelInfo); }
const std::vector<LogLine>& LogRecorder::lines() const { return sLines; }

void EngineTest::SetUp()
{
    // The engine may be created once per process; tests reset the shutdown latch through a fresh init.
    KsDeploy::Engine::instanceInit(nullptr);
    KsDeploy::Engine::instance().quietSet(true);
}

void EngineTest::TearDown() { KsDeploy::Engine::instanceTestReset(); }

void RegistryEngineTest::SetUp()
{
    KsDeploy::Engine::instanceInit(nullptr);
    KsDeploy::Engine::instance().quietSet(true);
    KsDeploy::RegistryStore::locationSet(store());
}

void RegistryEngineTest::TearDown()
{
    KsDeploy::RegistryStore::close();
    KsDeploy::RegistryStore::locationSet(QString());
    EngineTest::TearDown();
}

KsPlatform::Registry& RegistryEngineTest::registry()
{
    KsPlatform::Registry* r = nullptr;
    EXPECT_TRUE(KsDeploy::RegistryStore::instance(r).isOk());
    return *r;
}

void writeFile(const QString& inPath, const QByteArray& inBytes)
{
    QDir().mkpath(QFileInfo(inPath).absolutePath());
    QFile f(inPath);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate)) << inPath.toStdString();
    ASSERT_EQ(f.write(inBytes), inBytes.size());
}

QByteArray readFile(const QString& inPath)
{
    QFile f(inPath);
    if (!f.open(QIODevice::ReadOnly))
        return QByteArray();
    return f.readAll();
}
}
