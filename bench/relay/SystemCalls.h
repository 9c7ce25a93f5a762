#pragma once

#include <linux/perf_event.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>

namespace kvx::bench {

/// Counts the system calls of a process from now on, without slowing it down. That needs the
/// system's trace points, and the right to use them.
class SystemCalls {
  public:
    explicit SystemCalls(int pid) {
        perf_event_attr what{};
        what.type = PERF_TYPE_TRACEPOINT;
        what.size = sizeof what;
        what.inherit = 1;
        std::ifstream("/sys/kernel/tracing/events/raw_syscalls/sys_enter/id") >> what.config;
        if (what.config == 0) return;
        counter_ = static_cast<int>(syscall(SYS_perf_event_open, &what, pid, -1, -1, 0));
    }
    SystemCalls(const SystemCalls&) = delete;
    SystemCalls& operator=(const SystemCalls&) = delete;
    ~SystemCalls() {
        if (counter_ >= 0) close(counter_);
    }

    /// -1 where they cannot be counted.
    [[nodiscard]] std::int64_t count() const {
        std::int64_t calls = 0;
        if (counter_ < 0 || read(counter_, &calls, sizeof calls) != sizeof calls) return -1;
        return calls;
    }

  private:
    int counter_ = -1;
};

}  // namespace kvx::bench
