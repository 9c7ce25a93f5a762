#pragma once

#include <gtest/gtest.h>

#include <string>

#include "foundation/CVekAtom.h"

namespace kvx::test {

/// A new atom with a copy of these bytes.
inline CVekAtom* bytesAtom(const std::string& bytes) {
    return new CVekAtom(reinterpret_cast<const unsigned char*>(bytes.data()),
                        static_cast<int>(bytes.size()));
}

inline std::string bytesOf(const CVekAtom& atom) {
    unsigned char* bytes = nullptr;
    int length = 0;
    EXPECT_EQ(atom.RAUChar(&bytes, &length), 1);
    return {reinterpret_cast<char*>(bytes), static_cast<std::size_t>(length)};
}

}  // namespace kvx::test
