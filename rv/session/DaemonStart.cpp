#include <cstdlib>
#include <optional>
#include <string>

#include "platform/File.h"
#include "platform/Process.h"
#include "rv/session/rv_Session.h"

namespace {

std::optional<std::string> executableIn(const std::string& directory, const std::string& name) {
    if (directory.empty()) return std::nullopt;
    std::string path = directory + "/" + name;
    return kvx::platform::isExecutable(path) ? std::optional(std::move(path)) : std::nullopt;
}

// Beside the running program, then in $VEK_HOME/bin, then on PATH; a name with a slash is a file.
std::optional<std::string> findProgram(const std::string& name) {
    if (name.find('/') != std::string::npos) return name;
    if (auto beside = executableIn(kvx::platform::programDirectory(), name)) return beside;
    if (const char* home = std::getenv("VEK_HOME"); home != nullptr && *home != '\0')
        if (auto installed = executableIn(std::string(home) + "/bin", name)) return installed;
    return kvx::platform::findOnPath(name);
}

}  // namespace

bool rv_StartDaemon(const char* program, const char* daemonText) {
    if (program == nullptr || *program == '\0' || daemonText == nullptr) return false;
    const std::string name(program);
    const auto path = findProgram(name);
    if (!path) return false;
    const kvx::platform::Program command{*path, {name, "-listen", daemonText}, ""};
    return kvx::platform::startDaemon(command, name.substr(name.rfind('/') + 1)).pid != 0;
}
