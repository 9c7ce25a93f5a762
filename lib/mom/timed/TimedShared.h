#pragma once

#include "foundation/CVekAtom.h"
#include "mom/timed/CVekTimedWork.h"

class CVekTimedWorkMgr;

/// Shared by the sources of the room.
namespace kvx::timed {

/// The name of `poll` as a text, owned by the poll; "" for no poll and for a poll without a name.
inline const char* nameOf(CVekTimedWork* poll) {
    const CVekAtom* const name = poll != nullptr ? poll->RTWName() : nullptr;
    const char* const text = name != nullptr ? name->RAString() : nullptr;
    return text != nullptr ? text : "";
}

/// Marks, while it exists, that this thread holds a lock under which `manager` must not be called:
/// its own, or that of one of its distributions.
class LockHeld {
  public:
    explicit LockHeld(const CVekTimedWorkMgr* manager) : manager_(manager), outer_(innermost_) {
        innermost_ = this;
    }
    ~LockHeld() { innermost_ = outer_; }
    LockHeld(const LockHeld&) = delete;
    LockHeld& operator=(const LockHeld&) = delete;

    /// Whether this thread holds such a lock of `manager`.
    static bool isHeld(const CVekTimedWorkMgr* manager) {
        const LockHeld* held = innermost_;
        while (held != nullptr && held->manager_ != manager) held = held->outer_;
        return held != nullptr;
    }

  private:
    static inline thread_local const LockHeld* innermost_ = nullptr;

    const CVekTimedWorkMgr* manager_;
    const LockHeld* outer_;
};

}  // namespace kvx::timed
