#pragma once

#include <cstdint>

#include "platform/Export.h"

/// An answer that a poll waits for. The service derives a class from it that knows whether the
/// answer has come. Owned by the service; it must outlive the worker that waits on it.
class KVX_API CVekPollResponse {
  public:
    /// 0 goes on waiting (the time-out is counted down), 1 gives up, 2 and 3 run the poll again.
    /// Called by the main thread; `CVekTimedWorkMgr` says what an override may call.
    virtual int PRPollState() = 0;

    CVekPollResponse() = default;
    CVekPollResponse(const CVekPollResponse&) = default;
    CVekPollResponse& operator=(const CVekPollResponse&) = default;
    virtual ~CVekPollResponse() = default;

    /// In ticks.
    void PRSetTimeOut(unsigned int timeOut) { m_timeOut = timeOut; }

    /// Subtracts 1, without a lower bound: 0 becomes the largest value.
    void PRDecrementTimeOut() { --m_timeOut; }

    unsigned int PRTimeOut() const { return m_timeOut; }

  private:
    std::uint32_t m_timeOut = 0;
};
