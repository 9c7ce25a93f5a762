#pragma once

#include "platform/Export.h"
#include "rv/message/RvMsg.h"

/// Iterates over the fields of one message, which must outlive the iterator and not change
/// meanwhile.
class KVX_API RvMsgIterator {
  public:
    explicit RvMsgIterator(const RvMsg& message);
    RvMsgIterator(const RvMsgIterator&) = delete;
    RvMsgIterator& operator=(const RvMsgIterator&) = delete;
    ~RvMsgIterator();

    /// The next field, or null at the end, at a field that cannot be decoded, and without memory. A
    /// datum of type `RVMSG_MSG` is always an `RvMsg` and may be cast to one. The result belongs to
    /// the iterator and is overwritten by the next call.
    const RvDatum* next();

    /// Starts again at the first field.
    void reset();

  private:
    rvmsg_Data m_buffer;
    const unsigned char* m_position = nullptr;  // null before the first step
    const unsigned char* m_end = nullptr;       // the last byte of the message
    RvDatum m_datum;
    RvMsg m_message;
    alignas(8) unsigned char m_scratch[16] = {};
};
