#include "McUtil.h"

#include <cstdlib>
#include <thread>

void McThread::sleep(unsigned int inMilliseconds)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(inMilliseconds));
}

void McTerminateProcess(int inExitCode) { std::_Exit(inExitCode); }
