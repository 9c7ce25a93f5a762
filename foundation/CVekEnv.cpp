// An installed tree may be moved, so the prefix is derived from the path of this library. Code in
// another place, such as a statically linked program, uses the configured prefix.

#include "foundation/CVekEnv.h"

#include <cstdlib>
#include <map>
#include <mutex>
#include <string_view>

#include "platform/Process.h"
#include "platform/Socket.h"

namespace {

// The directory of the libraries below the prefix.
constexpr std::string_view kLibraries = "/" KVX_INSTALL_LIBDIR "/";

std::string installationPrefix() {
    static const char hereabouts = 0;
    std::string file = kvx::platform::fileOfCode(&hereabouts);
    const auto name = file.rfind('/') + 1;
    if (!std::string_view(file).substr(0, name).ends_with(kLibraries)) return KVX_INSTALL_PREFIX;
    file.resize(name - kLibraries.size());
    return file.empty() ? "/" : file;
}

std::string homeDirectory() {
    const char* home = std::getenv("KVX_HOME");
    return home != nullptr && *home != '\0' ? home : installationPrefix();
}

}  // namespace

CVekEnv::CVekEnv()
    : m_home(homeDirectory()), m_localHost(kvx::platform::localHostName().value_or("")) {}

const CVekAtom* CVekEnv::REVekHome() {
    // One atom for each directory ever asked for, never deleted: results stay valid even in static
    // destructors.
    static std::mutex mutex;
    static auto& atoms = *new std::map<std::string, CVekAtom>;
    const char* home = std::getenv("VEK_HOME");
    const std::string directory = home != nullptr && *home != '\0' ? home : homeDirectory();
    const std::lock_guard lock(mutex);
    return &atoms.try_emplace(directory, directory.c_str()).first->second;
}
