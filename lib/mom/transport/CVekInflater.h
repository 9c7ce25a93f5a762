#pragma once

#include <memory>

#include "foundation/Boolean.h"
#include "platform/Export.h"

/// Inflates one zlib stream from the caller's buffer into the caller's buffers.
///
/// Allocates only zlib's state. Errors are reported as `CVekError` -220440 with zlib's text. One
/// thread at a time.
///
/// An assigned inflater shares zlib's state with its source; use only one of them.
class KVX_API CVekInflater {
  public:
    /// Reads `length` bytes at `data`, which must outlive the inflater; a length below 0 counts as
    /// 0.
    CVekInflater(const void* data, int length);

    CVekInflater(const CVekInflater&) = delete;
    CVekInflater& operator=(const CVekInflater&) = default;

    ~CVekInflater();

    /// Inflates up to `room` bytes to `out`, in one step. Too little room is not an error: the next
    /// call continues.
    void RIInflateChunk(void* out, int room);

    /// Whether the end of the stream has been reached.
    __boolean RIIsDone();

    /// Bytes inflated so far, over all calls.
    int RIInflatedLength() const;

  private:
    struct State;

    std::shared_ptr<State> m_state;  // never null
    __boolean m_done = FALSE;
};
