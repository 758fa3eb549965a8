#pragma once
#include <QString>

namespace KsDeploy
{
// The one channel through which the engine tells a person what it is doing.
class Progress
{
public:
    Progress() = default;
    Progress(const Progress&) = default;
    Progress& operator=(const Progress&) = default;

    virtual void taskCountSet(unsigned int inCount) = 0;
    virtual void taskStartNext(const QString& inTaskName) = 0;
    virtual void print(const QString& inText) = 0;
    virtual void reportUpdateFailure() = 0;
    virtual void progressSet(float inFraction) = 0;
    virtual float progress() = 0;
    virtual void makeCloseable() {}
    virtual void show() {}
    virtual void close() {}
    virtual void raise() {}

    virtual ~Progress();
};
}
