#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "mom/mom.h"

namespace kvx::tool {

/// A pool for the updates of a `CVekSnoop`: its threads turn them into lines in parallel, and the
/// lines come out in the order in which the updates came in.
class OrderedPool : public CVekServPool {
  public:
    using Lines = std::vector<std::string>;
    using Decode = std::function<Lines(CVekUpdWork& update, std::int64_t cameAtMs)>;
    using Emit = std::function<void(const Lines& lines)>;

    /// Updates that may be inside at once; the next one waits, and with it the bus.
    static constexpr std::uint64_t kMost = 1000;

    /// `decode` is called by several threads at once, `emit` by one at a time. The threads start
    /// with `start`.
    OrderedPool(int threads, Decode decode, Emit emit);

    /// Lets the updates that are being decoded finish and drops the others.
    ~OrderedPool() override;

    void start();

    /// Takes a `CVekUpdWork` over and returns 1. Waits while the pool is full. One thread only.
    int RSPAddWorkDetail(void* item) override;

  private:
    struct Job;

    static void run(void* item, void* pool);
    void finish(std::uint64_t place, Lines lines);

    // Constant after construction.
    const Decode decode_;
    const Emit emit_;

    // Guarded by mutex_.
    std::mutex mutex_;
    std::condition_variable leaves_;
    std::map<std::uint64_t, Lines> finished_;  // by place in the order; those that wait for others
    std::uint64_t added_ = 0;
    std::uint64_t emitted_ = 0;
};

}  // namespace kvx::tool
