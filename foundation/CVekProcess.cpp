#include "foundation/CVekProcess.h"

#include <string>

#include "foundation/CVekProcessMgr.h"
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

namespace {

// A program with a slash in its name is a path already.
std::string pathOf(const char* directory, const std::string& program) {
    const bool isPath = program.find('/') != std::string::npos;
    if (isPath || directory == nullptr || *directory == '\0') return program;
    return std::string(directory) + "/" + program;
}

}  // namespace

CVekProcessHandle CVekProcessMgr::StartProcess(const char* directory, const char* program,
                                               const char* const* arguments,
                                               const char* /*reserved1*/,
                                               const char* /*reserved2*/) {
    if (program == nullptr || *program == '\0') return {};
    kvx::platform::Program start;
    start.path = pathOf(directory, program);
    if (arguments == nullptr) start.arguments.emplace_back(program);
    while (arguments != nullptr && *arguments != nullptr)
        start.arguments.emplace_back(*arguments++);
    return CVekProcessHandle(kvx::platform::startChild(start).pid);
}

bool CVekProcessMgr::KillProcess(CVekProcessHandle& handle) {
    if (handle.GetPID() == 0 || !kvx::platform::killAndReap(handle.GetPID())) return true;
    // The system may reuse the number from now on.
    handle = CVekProcessHandle();
    return false;
}
