#include "rv/event/IdTable.h"

#include <atomic>

namespace kvx::event {

std::uint64_t nextIdSerial() noexcept {
    static std::atomic<std::uint64_t> serial = 0;
    return serial.fetch_add(1, std::memory_order_relaxed) + 1;
}

}  // namespace kvx::event
