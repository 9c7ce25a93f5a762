#pragma once

#include "foundation/CVekAtom.h"
#include "mom/config/CVekRvdCfgParser.h"
#include "mom/net/VekCodes.h"
#include "mom/net/VekText.h"

namespace kvx {

/// Where the bus is, as the daemon configuration file says; null means the bus's own default. The
/// texts belong to the parser that read the file.
struct DaemonAddress {
    const char* service = nullptr;
    const char* network = nullptr;
    const char* daemon = nullptr;
};

inline const char* textOf(const CVekAtom* atom) {
    return atom != nullptr ? atom->RAString() : nullptr;
}

/// Reads the configuration file with `parser`. A file that is missing or cannot be parsed says
/// nothing.
inline DaemonAddress readDaemonAddress(CVekRvdCfgParser& parser) {
    const Text fileName(RvdCfgFileName());
    if (!fileName || parser.RRCPParseFromFilename(fileName.get()) != kOk) return {};
    return {textOf(parser.RRCPGetService()), textOf(parser.RRCPGetNetwork()),
            textOf(parser.RRCPGetDaemon())};
}

}  // namespace kvx
