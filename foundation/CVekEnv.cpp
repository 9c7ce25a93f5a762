#include "foundation/CVekEnv.h"

#include <cstdlib>
#include <map>
#include <mutex>

#include "platform/Socket.h"

namespace {

std::string homeDirectory() {
    const char* home = std::getenv("KVX_HOME");
    return home != nullptr && *home != '\0' ? home : KVX_INSTALL_PREFIX;
}

}  // namespace

CVekEnv::CVekEnv()
    : m_home(homeDirectory()), m_localHost(kvx::platform::localHostName().value_or("")) {}

const CVekAtom* CVekEnv::REVekHome() {
    // One atom for each directory ever asked for, kept for good: what was handed out stays valid
    // even under static destructors.
    static std::mutex mutex;
    static auto& atoms = *new std::map<std::string, CVekAtom>;
    const char* home = std::getenv("VEK_HOME");
    const std::string directory = home != nullptr && *home != '\0' ? home : homeDirectory();
    const std::lock_guard lock(mutex);
    return &atoms.try_emplace(directory, directory.c_str()).first->second;
}
