#pragma once

#include <cstdint>
#include <string>

#include "rv/rv.h"

/// The records by which other threads request bus objects from the main thread.
///
/// Every record starts with its type code and the id of the requesting thread. The requesting
/// thread allocates the record, the main thread deletes it. A record may be served after its thread
/// has given up, so it owns its texts.

/// Type codes of the records. Code 3 is not used.
enum EVekRvQueueType : std::int32_t {
    VEK_QUEUE_SENDER = 1,
    VEK_QUEUE_LISTENER = 2,
    VEK_QUEUE_IO = 4,
    VEK_QUEUE_TIMER = 5
};

struct SVekRvQueueSender {
    std::int32_t m_type;
    std::int32_t m_threadId;
    const char* m_subject;
    const char* m_replySubject;  // may be null
    std::string m_ownSubject{};  // storage of the two
    std::string m_ownReplySubject{};
};

struct SVekRvQueueListener {
    std::int32_t m_type;
    std::int32_t m_threadId;
    const char* m_subject;  // null for an inbox
    unsigned long m_timeout;
    const RvDataCallback* m_callback;
    void* m_closure;
    std::string m_ownSubject{};  // storage of m_subject
};

struct SVekRvQueueIO {
    std::int32_t m_type;
    std::int32_t m_threadId;
    unsigned int m_socket;
    RvIOCallback* m_callback;
    rvevm_IoEventType m_eventType;
    void* m_closure;
};

struct SVekRvQueueTimer {
    std::int32_t m_type;
    std::int32_t m_threadId;
    unsigned long m_interval;
    rv_Boolean m_repeat;
    const RvTimerCallback* m_callback;
    void* m_closure;
};
