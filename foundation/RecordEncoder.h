#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <string>

#include "foundation/CVekAtom.h"

namespace kvx {

/// A record has at most this many fields, which bounds the memory that a peer's bytes can cost.
inline constexpr std::size_t kMostRecordFields = 65'535;

/// Writes the encoding of one record straight into one growing buffer. Throws `std::bad_alloc`.
class RecordEncoder {
  public:
    /// Begins a record of exactly `fields` fields, all added before `finish`. `bytes` is an
    /// estimate of the length of all names and values together; too low only costs a reallocation.
    RecordEncoder(std::size_t fields, std::size_t bytes);

    void add(const std::string& name, const CVekAtom& value);

    /// Hands the `malloc`ed buffer to the caller. False, with nothing handed over, when its length
    /// exceeds `INT_MAX`.
    [[nodiscard]] bool finish(unsigned char** bytes, int* length);

  private:
    // An output stream for the packer, on memory from `malloc`.
    class Buffer {
      public:
        explicit Buffer(std::size_t capacity) { growTo(capacity); }

        void write(const char* bytes, std::size_t length);
        std::size_t length() const { return length_; }
        unsigned char* release() { return bytes_.release(); }

      private:
        struct Free {
            void operator()(unsigned char* bytes) const { std::free(bytes); }
        };

        void growTo(std::size_t capacity);

        std::unique_ptr<unsigned char, Free> bytes_;
        std::size_t length_ = 0;
        std::size_t capacity_ = 0;
    };

    Buffer buffer_;
};

}  // namespace kvx
