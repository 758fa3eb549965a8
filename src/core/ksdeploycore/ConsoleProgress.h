#pragma once
#include "Progress.h"

namespace KsDeploy
{
// Lines on standard output; fractions and task counts are dropped on purpose.
class ConsoleProgress : public Progress
{
public:
    ConsoleProgress() = default;
    ConsoleProgress(const ConsoleProgress&) = default;
    ConsoleProgress(ConsoleProgress&&) = default;
    ConsoleProgress& operator=(const ConsoleProgress&) = default;
    ConsoleProgress& operator=(ConsoleProgress&&) = default;
    ~ConsoleProgress() override = default;

    void taskCountSet(unsigned int inCount) override;
    void taskStartNext(const QString& inTaskName) override;
    void print(const QString& inText) override;
    void reportUpdateFailure() override;
    void progressSet(float inFraction) override;
    float progress() override;
};
}
