#pragma once
// Recorders for contract events, failure notifications and log lines, and an engine fixture.
#include "Engine.h"
#include "Registry.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace KsTest
{
struct ContractEvent
{
    int type;
    std::string condition;
    std::string file;
    std::string function;
};

// Captures contract events while alive (and keeps them off standard error).
class ContractRecorder
{
public:
    ContractRecorder();
    ~ContractRecorder();
    const std::vector<ContractEvent>& events() const;
    bool has(const std::string& inCondition) const;
    size_t count(const std::string& inCondition) const;
    void clear();
};

struct Failure
{
    std::string message;
    std::string condition;
    std::string location;
    std::string detail;
};

// Captures failures reported through Ks::fail while alive.
class FailureRecorder
{
public:
    FailureRecorder();
    ~FailureRecorder();
    const std::vector<Failure>& failures() const;
    bool hasMessage(const std::string& inMessage) const;
    bool hasCondition(const std::string& inCondition) const;
    void clear();
};

struct LogLine
{
    int level;
    std::string text;
};

// Captures lines written to the process log while alive.
class LogRecorder
{
public:
    LogRecorder();
    ~LogRecorder();
    const std::vector<LogLine>& lines() const;
};

// Creates a quiet engine for each test and shuts it down afterwards.
class EngineTest : public ::testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;
};

// The same with a registry store of the test's own in a temporary folder.
class RegistryEngineTest : public EngineTest
{
protected:
    void SetUp() override;
    void TearDown() override;
    QString store() const { return mDir.path() + "/registry.sqlite"; }
    QString p(const QString& inRel) const { return mDir.path() + "/" + inRel; }
    KsDeploy::Engine& e() { return KsDeploy::Engine::instance(); }
    KsPlatform::Registry& registry();

    QTemporaryDir mDir;
};

// Writes bytes to a file; creates missing parent folders.
void writeFile(const QString& inPath, const QByteArray& inBytes);
QByteArray readFile(const QString& inPath);
}
