#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <string>

#include "foundation/CVekAtom.h"

namespace kvx {

/// More fields than this are no record, so that what a peer sends costs memory in proportion.
inline constexpr std::size_t kMostRecordFields = 65'535;

/// Writes the encoding of one record straight into one growing buffer. Throws `std::bad_alloc`.
class RecordEncoder {
  public:
    /// Begins a record of `fields` fields, all of which must be added before `finish`, whose names
    /// and values are `bytes` long together: a guess too low costs a growth, no more.
    RecordEncoder(std::size_t fields, std::size_t bytes);

    void add(const std::string& name, const CVekAtom& value);

    /// Hands the `malloc`ed buffer to the caller. False, with nothing handed over, when it is
    /// longer than an `int` can say.
    [[nodiscard]] bool finish(unsigned char** bytes, int* length);

  private:
    // A stream in the packer's sense, on memory from `malloc`.
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
