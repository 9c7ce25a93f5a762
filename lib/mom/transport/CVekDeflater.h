#pragma once

#include <memory>

#include "platform/Export.h"

/// Compresses chunks of input into one complete zlib stream in a growing buffer of its own.
///
/// Add chunks, finish once, then read or take the result. Errors are reported as `CVekError` and
/// the operation that met one returns. One thread at a time.
///
/// An assigned deflater shares the buffer and zlib's state with its source: both are the same
/// stream, which ends with the last of them.
class KVX_API CVekDeflater {
  public:
    /// Starts with a buffer of `initialSize` bytes; 0 is an empty buffer that grows. A negative
    /// size counts as an allocation failure. A `level` outside 0 to 9 means zlib's default. Reports
    /// -220553 when there is no memory for the buffer, -220440 when zlib refuses to start.
    explicit CVekDeflater(int initialSize = 1024, int level = -1);

    CVekDeflater(const CVekDeflater&) = delete;
    CVekDeflater& operator=(const CVekDeflater&) = default;

    /// Ends the stream and frees the buffer if it was not taken. Reports -220440 when data that was
    /// added has not been finished.
    ~CVekDeflater();

    /// Compresses `length` bytes from `data`, which may stand in the deflater's own buffer. Reports
    /// -220402 when there is no buffer (any more), -220552 for a negative length or missing data,
    /// -220440 after the finish.
    void RDAddChunk(const void* data, int length);

    /// Writes out everything that waits and ends the stream. Reports -220402 when there is no
    /// buffer (any more).
    void RDFinishCompression();

    /// Bytes added so far.
    int RDUnCompressedLength();

    /// Bytes of the result so far; the whole result after the finish.
    int RDCompressedLength();

    /// The result. The deflater keeps it.
    void* RDCompressedData();

    /// The result; the caller frees it with `free`. The deflater has no buffer afterwards.
    void* RDTakeCompressedData();

  private:
    struct State;

    void RDMoreSpace(int bytes);
    void addChunk(const void* data, int length);
    bool haveRoom();

    std::shared_ptr<State> m_state;  // never null
};
