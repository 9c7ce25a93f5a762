#pragma once

#include <memory>
#include <string>
#include <vector>

#include "foundation/CVekBag.h"
#include "mom/transport/CVekTransport.h"
#include "tests/support/Atoms.h"

namespace kvx::test {

using Texts = std::vector<std::string>;

inline Texts numbered(int count) {
    Texts texts;
    for (int i = 0; i < count; ++i) texts.push_back("record " + std::to_string(i));
    return texts;
}

inline void addRecord(CVekTransport& transport, const std::string& bytes) {
    CVekAtom* atom = bytesAtom(bytes);
    EXPECT_EQ(transport.RTTakeROMP(&atom), 1);
    EXPECT_EQ(atom, nullptr);
}

/// The records of all packets that `transport` has received.
inline Texts decoded(CVekTransport& transport) {
    const std::unique_ptr<CVekBag> bag(transport.RTDecodes());
    Texts texts;
    for (unsigned i = 0; i < bag->RBSize(); ++i) {
        const std::unique_ptr<CVekAtom> atom(static_cast<CVekAtom*>(bag->RBGet(i)));
        texts.push_back(bytesOf(*atom));
    }
    return texts;
}

inline void receive(CVekTransport& transport, const std::string& packet) {
    EXPECT_EQ(transport.RTAddMessage(bytesAtom(packet)), 1);
}

inline Texts decoded(const Texts& packets) {
    CVekTransport transport(nullptr);
    for (const auto& packet : packets) receive(transport, packet);
    return decoded(transport);
}

}  // namespace kvx::test
