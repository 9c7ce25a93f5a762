#pragma once

#include <cstdint>

#include "platform/Export.h"
#include "rv/rv.h"

/// The timer callback that drains an engine's send queue, a bounded number of items per tick.
///
/// Its timer's closure is the `CVekEngine`. Loop thread only.
class KVX_API CVekInitTimedClb : public RvTimerCallback {
  public:
    /// A number below 1 becomes 1.
    explicit CVekInitTimedClb(int itemsPerTick);
    CVekInitTimedClb(const CVekInitTimedClb& other);
    CVekInitTimedClb& operator=(const CVekInitTimedClb& other);
    ~CVekInitTimedClb() override;

    /// Sends at most the number of items of one tick. A failed item is dropped.
    void onTimer(RvTimer* timer) override;

    std::int32_t m_itemsPerTick;
};
