#include "mom/engine/CVekInitTimedClb.h"

#include <memory>

#include "mom/engine/CVekEngine.h"

CVekInitTimedClb::CVekInitTimedClb(int itemsPerTick)
    : m_itemsPerTick(itemsPerTick > 0 ? itemsPerTick : 1) {}

CVekInitTimedClb::CVekInitTimedClb(const CVekInitTimedClb&) = default;
CVekInitTimedClb& CVekInitTimedClb::operator=(const CVekInitTimedClb&) = default;
CVekInitTimedClb::~CVekInitTimedClb() = default;

void CVekInitTimedClb::onTimer(RvTimer* timer) {
    auto* const engine = static_cast<CVekEngine*>(timer->closure());
    const kvx::NetWatch watch = engine->watch();
    const int itemsPerTick = m_itemsPerTick;
    engine->m_sentInTick = 0;
    engine->tellRole();
    // A send, or the role callback, may end the session or destroy the engine, and this object with
    // it.
    for (int sent = 0; sent < itemsPerTick && watch.storageStands(); ++sent) {
        const std::unique_ptr<CVekSendQueueItem> item(engine->RENextSendItem());
        if (!item) return;
        ++engine->m_sentInTick;
        item->RSQIDeQueueIt();  // reports a failure itself; the item is deleted either way
    }
}
