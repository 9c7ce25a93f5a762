// A running list is walked by index over entries that stay in place: an added hook goes to the end
// and is reached by the same run; a removed one is only nulled, and the end of the outermost run of
// its list erases it. Each entry is copied before its call, since adding may reallocate.

#include "rv/session/HookLists.h"

#include <algorithm>
#include <new>

#include "rv/error/rvCodes.h"
#include "rv/session/SessionState.h"

namespace kvx::session {

void HookLists::add(rv_HookList list, rv_Hook hook, void* closure) {
    lists_[list].entries.push_back({hook, closure});
}

bool HookLists::remove(rv_HookList list, rv_Hook hook, void* closure) {
    List& hooks = lists_[list];
    const auto found = std::ranges::find_if(hooks.entries, [&](const Entry& entry) {
        return entry.hook == hook && entry.closure == closure;
    });
    if (found == hooks.entries.end()) return false;
    if (hooks.running > 0)
        found->hook = nullptr;
    else
        hooks.entries.erase(found);
    return true;
}

int HookLists::run(rv_HookList list, rv_Session session, const void* message) {
    List& hooks = lists_[list];
    if (hooks.entries.empty()) return 0;
    const bool resultCounts = list <= RV_HOOK_LISTEN;
    int result = 0;
    ++hooks.running;
    for (std::size_t i = 0; i < hooks.entries.size() && result == 0; ++i) {
        const Entry entry = hooks.entries[i];
        if (entry.hook == nullptr) continue;
        const int given = entry.hook(session, message, entry.closure);
        if (resultCounts) result = given;
    }
    if (--hooks.running == 0)
        std::erase_if(hooks.entries, [](const Entry& entry) { return entry.hook == nullptr; });
    return result;
}

}  // namespace kvx::session

namespace session_code = kvx::session_code;

namespace {

bool isHook(rv_HookList list, rv_Hook hook) {
    return list >= RV_HOOK_PUBLISH && list <= RV_HOOK_RELEASE && hook != nullptr;
}

}  // namespace

int rv_AddHook(rv_Session handle, rv_HookList list, rv_Hook hook, void* closure) {
    kvx::session::SessionState* const session = kvx::session::find(handle);
    if (session == nullptr) return session_code::kInvalidSession;
    if (!isHook(list, hook)) return session_code::kInvalidArgument;
    try {
        session->hooks.add(list, hook, closure);
    } catch (const std::bad_alloc&) {
        return session_code::kNoMemory;
    }
    return session_code::kOk;
}

int rv_RemoveHook(rv_Session handle, rv_HookList list, rv_Hook hook, void* closure) {
    kvx::session::SessionState* const session = kvx::session::find(handle);
    if (session == nullptr) return session_code::kInvalidSession;
    if (!isHook(list, hook)) return session_code::kInvalidArgument;
    return session->hooks.remove(list, hook, closure) ? session_code::kOk
                                                      : session_code::kInvalidArgument;
}
