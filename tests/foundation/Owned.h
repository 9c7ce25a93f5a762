#pragma once

namespace kvx::test {

struct FreeMemory {
    void operator()(void* memory) const { std::free(memory); }
};

/// A text that the foundation handed out to be released with `free`.
using OwnedText = std::unique_ptr<char, FreeMemory>;

inline std::string take(char* text) {
    const OwnedText owned(text);
    return owned == nullptr ? "(null)" : owned.get();
}

}  // namespace kvx::test
