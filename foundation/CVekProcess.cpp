#include "foundation/CVekProcess.h"

#include "platform/Process.h"

CVekProcess& CVekProcess::Instance() {
    static CVekProcess process;
    return process;
}

unsigned long CVekProcess::GetPID() const {
    return kvx::platform::processId();
}

void CVekProcess::Exit(int status) {
    kvx::platform::exitNow(status);
}
