#pragma once

#include <memory>
#include <string>
#include <vector>

#include "foundation/CVekAtomVector.h"
#include "foundation/CVekBag.h"
#include "mom/transport/CVekTransport.h"
#include "tests/support/Atoms.h"

namespace kvx::test {

using Texts = std::vector<std::string>;

/// The bytes of the packets that `transport` has made, each packet one text.
inline Texts packetsOf(CVekTransport& transport) {
    const std::unique_ptr<CVekAtomVector> packets(transport.RTEncodes());
    Texts texts;
    for (unsigned i = 0; i < packets->RAVSize(); ++i) {
        texts.push_back(bytesOf(*packets->RAVGetValue(i)));
    }
    return texts;
}

/// The bytes of the records in all packets that `transport` has received.
inline Texts recordsOf(CVekTransport& transport) {
    const std::unique_ptr<CVekBag> bag(transport.RTDecodes());
    Texts texts;
    for (unsigned i = 0; i < bag->RBSize(); ++i) {
        const std::unique_ptr<CVekAtom> atom(static_cast<CVekAtom*>(bag->RBGet(i)));
        texts.push_back(bytesOf(*atom));
    }
    return texts;
}

}  // namespace kvx::test
