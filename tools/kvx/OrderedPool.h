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

/// A pool for the updates of a `CVekSnoop`: its threads decode them into lines in parallel, and the
/// lines are emitted in the order of the updates.
class OrderedPool : public CVekServPool {
  public:
    using Lines = std::vector<std::string>;
    using Decode = std::function<Lines(CVekUpdWork& update, std::int64_t cameAtMs)>;
    using Emit = std::function<void(const Lines& lines)>;

    /// Bound of the updates inside; the next one blocks, and with it the bus.
    static constexpr std::uint64_t kMost = 1000;

    /// `decode` is called by several threads at once, `emit` by one at a time. The threads start
    /// with `start`.
    OrderedPool(int threads, Decode decode, Emit emit);

    /// Waits for the updates being decoded and drops the others.
    ~OrderedPool() override;

    void start();

    /// Takes ownership of a `CVekUpdWork` and returns 1. Blocks while the pool is full. One thread
    /// only.
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
    std::map<std::uint64_t, Lines> finished_;  // by number; waiting for earlier ones
    std::uint64_t added_ = 0;
    std::uint64_t emitted_ = 0;
};

}  // namespace kvx::tool
