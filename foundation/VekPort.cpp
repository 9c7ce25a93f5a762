#include "foundation/VekPort.h"

#include <cstring>

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
