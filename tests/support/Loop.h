#pragma once

#include <gtest/gtest.h>

#include <functional>

#include "platform/Clock.h"
#include "rv/event/rvevm.h"

namespace kvx::test {

/// Runs the loop of `manager` until `done` holds, which is asked every millisecond; fails the test
/// after half a minute.
inline void runUntil(rvevm_Manager manager, const std::function<bool()>& done) {
    struct Watch {
        rvevm_Manager manager;
        const std::function<bool()>& done;
        platform::Milliseconds end = platform::monotonicMs() + 30'000;

        static void check(void*, void* closure, int, void*) {
            const auto& self = *static_cast<Watch*>(closure);
            const bool late = platform::monotonicMs() > self.end;
            if (late) ADD_FAILURE() << "the condition did not come true";
            if (late || self.done()) rvevm_Stop(self.manager);
        }
    } watch{manager, done};
    rvevm_Id timer = nullptr;
    ASSERT_EQ(rvevm_AddRepeatTimer(manager, &timer, 1, Watch::check, &watch), 0);
    ASSERT_EQ(rvevm_MainLoop(manager), 0);
    rvevm_RemoveTimer(manager, timer);
}

}  // namespace kvx::test
