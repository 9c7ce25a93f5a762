#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string_view>

#include "foundation/CVekAtom.h"

namespace kvx {

/// Reads the encoding of one record, field by field. Safe on any bytes.
class RecordDecoder {
  public:
    struct Field {
        std::string_view name;  ///< inside the bytes given
        std::unique_ptr<const CVekAtom> value;
    };

    /// Reads the record's head. `bytes` must outlive the decoder.
    explicit RecordDecoder(std::span<const unsigned char> bytes);

    /// How many fields the rest can hold at most; never more than the bytes that remain allow.
    std::size_t fieldsAhead() const { return fieldsAhead_; }

    /// The next field; nothing after the last one, and nothing after an error.
    std::optional<Field> next();

    /// True when all fields were read and no byte was left over.
    bool isComplete() const { return !failed_ && fieldsAhead_ == 0 && rest_.empty(); }

  private:
    // Each reads one item at the front of the rest, or sets failed_ and returns an empty value.
    std::uint64_t number(std::size_t width);
    std::span<const unsigned char> bytes(std::uint64_t length);
    std::size_t arrayLength();
    std::string_view text();
    std::unique_ptr<const CVekAtom> value();
    std::unique_ptr<const CVekAtom> integer(unsigned char form);
    std::string_view textOfLength(std::uint64_t length);

    std::span<const unsigned char> rest_;
    std::size_t fieldsAhead_ = 0;
    bool failed_ = false;
};

}  // namespace kvx
