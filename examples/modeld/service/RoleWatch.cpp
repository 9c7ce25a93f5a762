#include "examples/modeld/service/RoleWatch.h"

#include <utility>

namespace modeld {

namespace {

constexpr int kLookMs = 50;

}  // namespace

RoleWatch::RoleWatch(CVekEngine& engine, Changed changed)
    : engine_(engine), changed_(std::move(changed)) {}

bool RoleWatch::start() {
    if (engine_.RRNAddRepeatTimer(kLookMs, this) != 1) return false;
    active_ = engine_.REIsActive() == TRUE;
    changed_(active_);
    return true;
}

bool RoleWatch::isActive() {
    const bool active = engine_.REIsActive() == TRUE;
    if (active != active_) {
        active_ = active;
        changed_(active);
    }
    return active;
}

void RoleWatch::onTimer(RvTimer*) {
    isActive();
}

}  // namespace modeld
