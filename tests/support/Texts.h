#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace kvx::test {

/// Whether a text has that part. An expectation that fails shows the text.
inline testing::AssertionResult holds(const std::string& text, std::string_view part) {
    return testing::AssertionResult(text.find(part) != text.npos) << "'" << part << "': " << text;
}

}  // namespace kvx::test
