// The claims of the process by owner. A claim names the thread and counts its tokens; a new claim
// is refused while another owner has one of another thread. Each token is a shared pointer whose
// deleter returns the claim.

#include "mom/net/LoopThread.h"

#include <algorithm>
#include <map>
#include <mutex>

#include "foundation/CVekThread.h"

namespace {

struct Claim {
    unsigned thread = 0;
    int holds = 0;
};

struct Claims {
    std::mutex mutex;
    std::map<const void*, Claim> byOwner;  // guarded by mutex
};

// Never destroyed: a net in static storage may be destroyed later.
Claims& claims() {
    static auto& all = *new Claims;
    return all;
}

void giveBack(const void* owner) {
    const std::lock_guard guard(claims().mutex);
    const auto entry = claims().byOwner.find(owner);
    if (--entry->second.holds == 0) claims().byOwner.erase(entry);
}

}  // namespace

std::shared_ptr<const void> kvx::claimLoopThread(const void* owner) {
    const unsigned thread = CVekThread::RTId();
    {
        const std::lock_guard guard(claims().mutex);
        auto& byOwner = claims().byOwner;
        const bool taken = std::ranges::any_of(byOwner, [&](const auto& entry) {
            return entry.first != owner && entry.second.thread != thread;
        });
        if (taken) return nullptr;
        Claim& claim = byOwner[owner];
        claim.thread = thread;
        ++claim.holds;
    }
    // Without the lock: a pointer that finds no memory calls its deleter.
    return {owner, giveBack};
}
