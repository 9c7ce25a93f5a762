// Every update gets a number when it comes in. A thread stores its decoded lines under that number,
// and then emits all that are next in order: no thread waits for a slower one, and the one that
// fills a gap also emits the updates behind it.

#include "tools/kvx/OrderedPool.h"

#include <utility>

#include "platform/Clock.h"

namespace kvx::tool {

struct OrderedPool::Job {
    std::unique_ptr<CVekUpdWork> update;
    std::uint64_t place = 0;
    std::int64_t cameAtMs = 0;
};

OrderedPool::OrderedPool(int threads, Decode decode, Emit emit)
    : CVekServPool(threads, this), decode_(std::move(decode)), emit_(std::move(emit)) {}

OrderedPool::~OrderedPool() {
    RSPStopThreads();
    while (void* job = RSPTakeWorkDetail()) {
        const std::unique_ptr<Job> dropped(static_cast<Job*>(job));
    }
}

void OrderedPool::start() {
    RSPLaunchThreads(run);
}

int OrderedPool::RSPAddWorkDetail(void* item) {
    auto job = std::make_unique<Job>();
    job->update.reset(static_cast<CVekUpdWork*>(item));
    job->cameAtMs = platform::wallMilliseconds();
    {
        std::unique_lock lock(mutex_);
        leaves_.wait(lock, [this] { return added_ - emitted_ < kMost; });
        job->place = added_++;
    }
    const int result = CVekServPool::RSPAddWorkDetail(job.get());
    if (result == 1) static_cast<void>(job.release());
    return result;
}

void OrderedPool::run(void* item, void* pool) {
    const std::unique_ptr<Job> job(static_cast<Job*>(item));
    auto* self = static_cast<OrderedPool*>(pool);
    self->finish(job->place, self->decode_(*job->update, job->cameAtMs));
}

void OrderedPool::finish(std::uint64_t place, Lines lines) {
    const std::lock_guard guard(mutex_);
    finished_.emplace(place, std::move(lines));
    while (!finished_.empty() && finished_.begin()->first == emitted_) {
        emit_(finished_.begin()->second);
        finished_.erase(finished_.begin());
        ++emitted_;
    }
    leaves_.notify_one();
}

}  // namespace kvx::tool
