#include "rvd/Version.h"

namespace kvx::rvd {

const char* version() {
    return KVX_VERSION;
}

}  // namespace kvx::rvd
