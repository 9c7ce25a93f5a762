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

// Counted rather than asked of the system, which gives the number of a dead thread to a new one: an
// answer that was meant for the dead one would reach the wrong thread.
unsigned CVekThread::RTId() {
    static std::atomic<unsigned> threads{0};
    static thread_local const unsigned id = ++threads;
    return id;
}
