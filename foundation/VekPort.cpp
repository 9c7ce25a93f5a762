#include "foundation/VekPort.h"

#include <atomic>
#include <cstring>

#include "foundation/CVekThread.h"
#include "foundation/VekDebugLevel.h"
#include "platform/Clock.h"
#include "platform/Process.h"

int __ZembraLix_Debug_Level = 0;

void VekSleep(unsigned int milliseconds) {
    kvx::platform::sleepMs(milliseconds);
}

char* VekGetBinaryName(unsigned long pid) {
    const auto name = kvx::platform::programName(pid);
    return name ? strdup(name->c_str()) : nullptr;
}

// A counter, not the system's thread id: the system reuses the id of a dead thread, and an answer
// meant for the dead thread would reach the new one.
unsigned CVekThread::RTId() {
    static std::atomic<unsigned> threads{0};
    static thread_local const unsigned id = ++threads;
    return id;
}
