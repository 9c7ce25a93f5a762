#pragma once

#include "tests/support/Packets.h"

namespace kvx::test {

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

inline void receive(CVekTransport& transport, const std::string& packet) {
    EXPECT_EQ(transport.RTAddMessage(bytesAtom(packet)), 1);
}

inline Texts decoded(const Texts& packets) {
    CVekTransport transport(nullptr);
    for (const auto& packet : packets) receive(transport, packet);
    return recordsOf(transport);
}

}  // namespace kvx::test
