#pragma once

#include <array>
#include <vector>

#include "rv/session/rvSessionHooks.h"

namespace kvx::session {

/// The seven hook lists of a session. Hooks may add and remove hooks while they run: one added to
/// the running list is called too, a removed one is not.
class HookLists {
  public:
    void add(rv_HookList list, rv_Hook hook, void* closure);
    [[nodiscard]] bool remove(rv_HookList list, rv_Hook hook, void* closure);
    [[nodiscard]] bool empty(rv_HookList list) const { return lists_[list].entries.empty(); }
    /// Calls the hooks in order until one returns nonzero, which is returned. Lists 3 to 6 run to
    /// their end and return 0.
    int run(rv_HookList list, rv_Session session, const void* message);

  private:
    static constexpr std::size_t kLists = 7;
    struct Entry {
        rv_Hook hook;  // null: removed while its list ran
        void* closure;
    };
    struct List {
        std::vector<Entry> entries;
        int running = 0;
    };
    std::array<List, kLists> lists_;
};

}  // namespace kvx::session
