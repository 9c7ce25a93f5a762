#pragma once

#include <memory>

#include "platform/Export.h"

/// Compresses chunks of input into one complete zlib stream in its own growing buffer.
///
/// Add chunks, finish once, then read or take the result. An operation reports an error as
/// `CVekError` and returns. One thread at a time.
///
/// An assigned deflater shares the buffer and zlib's state with its source; the last of them ends
/// the stream.
class KVX_API CVekDeflater {
  public:
    /// Starts with a buffer of `initialSize` bytes; 0 is an empty buffer that grows. A negative
    /// size counts as an allocation failure. A `level` outside 0 to 9 means zlib's default. Reports
    /// -220553 without memory for the buffer, -220440 when zlib fails to start.
    explicit CVekDeflater(int initialSize = 1024, int level = -1);

    CVekDeflater(const CVekDeflater&) = delete;
    CVekDeflater& operator=(const CVekDeflater&) = default;

    /// Ends the stream and frees the buffer if it was not taken. Reports -220440 when added data
    /// was not finished.
    ~CVekDeflater();

    /// Compresses `length` bytes from `data`, which may lie in the deflater's own buffer. Reports
    /// -220402 without a buffer, -220552 for a negative length or missing data, -220440 after the
    /// finish.
    void RDAddChunk(const void* data, int length);

    /// Writes all pending output and ends the stream. Reports -220402 without a buffer.
    void RDFinishCompression();

    /// Bytes added so far.
    int RDUnCompressedLength();

    /// Bytes of the result so far; the whole result after the finish.
    int RDCompressedLength();

    /// The result, owned by the deflater.
    void* RDCompressedData();

    /// The result, which the caller frees with `free`. The deflater has no buffer afterwards.
    void* RDTakeCompressedData();

  private:
    struct State;

    void RDMoreSpace(int bytes);
    void addChunk(const void* data, int length);
    bool haveRoom();

    std::shared_ptr<State> m_state;  // never null
};
