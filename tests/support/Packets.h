#pragma once

#include <memory>
#include <string>
#include <vector>

#include "foundation/CVekAtomVector.h"
#include "mom/transport/CVekTransport.h"
#include "tests/support/Atoms.h"

namespace kvx::test {

/// The bytes of the packets that `transport` has made, each packet one text.
inline std::vector<std::string> packetsOf(CVekTransport& transport) {
    const std::unique_ptr<CVekAtomVector> packets(transport.RTEncodes());
    std::vector<std::string> texts;
    for (unsigned i = 0; i < packets->RAVSize(); ++i) {
        texts.push_back(bytesOf(*packets->RAVGetValue(i)));
    }
    return texts;
}

}  // namespace kvx::test
