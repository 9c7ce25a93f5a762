#include "rvd/Version.h"

namespace kvx::rvd {

const char* version() {
    return KVX_VERSION;
}

// Raised with every change of what `save` and `restore` of any class write and read.
std::uint64_t stateVersion() {
    return 3;
}

}  // namespace kvx::rvd
