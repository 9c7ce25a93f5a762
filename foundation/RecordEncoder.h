#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "foundation/CVekAtom.h"

namespace kvx {

/// More fields than this are no record, so that what a peer sends costs memory in proportion.
inline constexpr std::size_t kMostRecordFields = 65'535;

/// Writes the encoding of one record straight into one growing buffer. Throws `std::bad_alloc`.
class RecordEncoder {
  public:
    /// Begins a record of `fields` fields, all of which must be added before `finish`.
    explicit RecordEncoder(std::size_t fields);
    ~RecordEncoder();
    RecordEncoder(const RecordEncoder&) = delete;
    RecordEncoder& operator=(const RecordEncoder&) = delete;

    void add(const std::string& name, const CVekAtom& value);

    /// Hands the `malloc`ed buffer to the caller. False, with nothing handed over, when it is
    /// longer than an `int` can say.
    [[nodiscard]] bool finish(unsigned char** bytes, int* length);

  private:
    class Buffer;
    std::unique_ptr<Buffer> buffer_;
};

}  // namespace kvx
