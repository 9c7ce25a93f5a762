#include "python/module/Waiting.h"

#include <algorithm>
#include <cmath>
#include <system_error>
#include <thread>
#include <utility>

namespace kvx::python {

namespace {

// The threads of `callOnThread`. Never destroyed: one may outlive `main`.
struct Threads {
    std::mutex mutex;
    std::condition_variable changed;
    int running = 0;
};

Threads& threads() {
    static auto* const all = new Threads;
    return *all;
}

}  // namespace

struct Call::Doer::State {
    std::mutex mutex;
    std::condition_variable changed;
    // Guarded by mutex.
    bool isDone = false;
    bool isDropped = false;
    Result result;
    Function whenDone;
};

Deadline deadlineAfter(const py::object& seconds) {
    if (seconds.is_none()) return std::nullopt;
    constexpr double kMost = 1e9;
    const double wanted = std::clamp(seconds.cast<double>(), 0.0, kMost);
    return std::chrono::steady_clock::now() +
           std::chrono::duration_cast<std::chrono::steady_clock::duration>(
               std::chrono::duration<double>(wanted));
}

void requireMayWait() {
    checkProcess();
    if (!InsideCall::isInside()) return;
    throw Failure(Error{Errc::InvalidArgument,
                        "this waits, which a function called by the client or service must not",
                        {}});
}

void handleSignals() {
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
}

Call::Doer::~Doer() {
    if (state_) finish(tl::unexpected(Error{Errc::Ended, {}, tried_}));
}

void Call::Doer::finish(Result result) {
    const auto state = std::exchange(state_, nullptr);
    if (!state) return;
    Function whenDone;
    {
        const std::lock_guard guard(state->mutex);
        state->isDone = true;
        if (!state->isDropped) state->result.swap(result);
        whenDone = std::exchange(state->whenDone, {});
        state->changed.notify_all();
    }
    if (whenDone) whenDone.call();
}

void Call::Doer::finish(kvx::Result<> result) {
    finish([result = std::move(result)]() -> py::object {
        require(result);
        return py::none();
    });
}

Call::Call(Doer& doer) : state_(std::make_shared<Doer::State>()) {
    doer.state_ = state_;
}

Call Call::done(std::string tried) {
    Doer doer(std::move(tried));
    Call call(doer);
    doer.finish(kvx::Result<>());
    return call;
}

py::object Call::wait() {
    try {
        if (!isDone(py::none())) {
            waitUntil(state_->mutex, state_->changed, {}, [this] { return state_->isDone; });
        }
    } catch (...) {
        drop();
        throw;
    }
    return result();
}

py::object Call::result() {
    Result result;
    {
        const WithoutGil withoutGil;
        const std::lock_guard guard(state_->mutex);
        result = std::exchange(state_->result, {});
    }
    return result ? result() : py::none();
}

bool Call::isDone(const py::object& whenDone) {
    Function function(whenDone);
    const WithoutGil withoutGil;
    const std::lock_guard guard(state_->mutex);
    if (!state_->isDone) std::swap(state_->whenDone, function);
    return state_->isDone;
}

void Call::drop() {
    const WithoutGil withoutGil;  // also while the result goes, which may wait for a thread
    Result result;
    Function whenDone;
    const std::lock_guard guard(state_->mutex);
    state_->isDropped = true;
    result.swap(state_->result);
    std::swap(whenDone, state_->whenDone);
}

Call callOnThread(std::string tried, std::function<Call::Result()> work) {
    auto doer = std::make_shared<Call::Doer>(std::move(tried));
    Call call(*doer);
    const WithoutGil withoutGil;
    const std::lock_guard guard(threads().mutex);
    try {
        std::thread([doer, work = std::move(work)]() mutable {
            doer->finish(work());
            work = {};
            doer.reset();
            const std::lock_guard ending(threads().mutex);
            --threads().running;
            threads().changed.notify_all();
        }).detach();
        ++threads().running;
    } catch (const std::system_error& error) {
        doer->finish(tl::unexpected(Error{Errc::NoMemory, error.what(), "starting a thread"}));
    }
    return call;
}

void waitForThreads(std::chrono::milliseconds most) {
    const WithoutGil withoutGil;
    std::unique_lock lock(threads().mutex);
    threads().changed.wait_for(lock, most, [] { return threads().running == 0; });
}

void defineWaiting(py::module_& module) {
    py::class_<Call>(module, "Call")
        .def("wait", &Call::wait)
        .def("result", &Call::result)
        .def("is_done", &Call::isDone, py::arg("when_done") = py::none())
        .def("drop", &Call::drop);
}

}  // namespace kvx::python
