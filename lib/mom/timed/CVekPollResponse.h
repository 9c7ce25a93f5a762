#pragma once

#include <cstdint>

#include "platform/Export.h"

/// An answer that a poll waits for. The service derives a class that checks whether it has come.
/// Owned by the service; must outlive the worker that waits on it.
class KVX_API CVekPollResponse {
  public:
    /// Returns 0 to wait on (the time-out is decremented), 1 to give up, 2 or 3 to run the poll
    /// again. Called on the main thread; see `CVekTimedWorkMgr` for what an override may call.
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
