#pragma once

#include <pybind11/pybind11.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>

#include "python/module/Failure.h"
#include "python/module/Gil.h"

namespace kvx::python {

using Deadline = std::optional<std::chrono::steady_clock::time_point>;

/// After so many seconds; nothing for None. GIL held.
Deadline deadlineAfter(const py::object& seconds);

/// Throws where waiting would wait for itself, in a function that a client or service calls, and in
/// a process that was forked while something was open.
void requireMayWait();

/// Runs the handlers of signals that have come, which may raise. GIL held.
void handleSignals();

/// For how long a wait leaves the handlers of signals, which nothing else wakes, waiting.
inline constexpr std::chrono::milliseconds kSlice{50};

/// Waits without the GIL for `isDone`, which is asked under `mutex`; false at the deadline. The
/// handlers of signals run meanwhile, and what they raise is thrown. GIL held.
template <class Done>
bool waitUntil(std::mutex& mutex, std::condition_variable& changed, const Deadline& deadline,
               Done isDone) {
    requireMayWait();
    while (true) {
        const auto now = std::chrono::steady_clock::now();
        const auto next = deadline ? std::min(*deadline, now + kSlice) : now + kSlice;
        bool isReady = false;
        {
            const WithoutGil withoutGil;
            std::unique_lock lock(mutex);
            isReady = changed.wait_until(lock, next, isDone);
        }
        if (isReady) return true;
        handleSignals();
        if (deadline && std::chrono::steady_clock::now() >= *deadline) return false;
    }
}

/// Locks without the GIL. The handlers of signals run meanwhile, and what they raise is thrown. GIL
/// held.
template <class Lock>
Lock lockWithSignals(std::shared_timed_mutex& mutex) {
    Lock lock(mutex, std::defer_lock);
    while (true) {
        {
            const WithoutGil withoutGil;
            if (lock.try_lock_for(kSlice)) return lock;
        }
        handleSignals();
    }
}

/// One call on its way: what comes of it can be waited for here, or told to an event loop.
class Call {
  public:
    /// Makes what Python gets, or throws. GIL held.
    using Result = std::function<py::object()>;

    /// The side that does it. Finishes with `Ended` when it is dropped. Any thread, once.
    class Doer {
      public:
        explicit Doer(std::string tried) : tried_(std::move(tried)) {}
        ~Doer();
        Doer(const Doer&) = delete;
        Doer& operator=(const Doer&) = delete;

        void finish(Result result);
        void finish(kvx::Result<> result);

      private:
        friend class Call;
        struct State;
        const std::string tried_;
        std::shared_ptr<State> state_;
    };

    explicit Call(Doer& doer);
    /// One that has ended well.
    static Call done(std::string tried);

    /// Waits for its end. When a signal's handler raises, what comes of it is dropped. GIL held.
    py::object wait();
    /// What came of it, once. GIL held.
    py::object result();
    /// Whether it has ended; when not, `whenDone` is called as soon as it has. GIL held.
    bool isDone(const py::object& whenDone);
    /// Nobody wants what comes of it any more.
    void drop();

  private:
    std::shared_ptr<Doer::State> state_;
};

/// A call that a thread of its own makes, which may block. `work` is called without the GIL.
Call callOnThread(std::string tried, std::function<Call::Result()> work);
/// Waits, for a while only, until those threads have ended. GIL held.
void waitForThreads(std::chrono::milliseconds most);

void defineWaiting(py::module_& module);

}  // namespace kvx::python
