// The public operations, and the registry of this process's members by token. The registry's lock
// is never held while user code runs: an operation takes a shared pointer out of it first. A leave
// removes the member from the registry before it announces anything, so callbacks that come later
// find none.

#include "rv/ft/rvft.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <exception>
#include <map>
#include <mutex>
#include <new>
#include <random>
#include <utility>

#include "platform/Clock.h"
#include "rv/event/TimeValue.h"
#include "rv/ft/GroupMessage.h"
#include "rv/ft/Member.h"
#include "rv/session/rvSessionHooks.h"

namespace kvx::ft {

namespace {

class Registry {
  public:
    static Registry& instance() {
        static auto& registry = *new Registry;  // never destroyed: sessions may close during exit
        return registry;
    }

    bool has(rv_Session session, const std::string& group) const {
        const std::lock_guard guard(lock_);
        return std::ranges::any_of(
            members_, [&](const auto& entry) { return entry.second->isOf(session, group); });
    }
    void add(void* token, std::shared_ptr<Member> member) {
        const std::lock_guard guard(lock_);
        members_.emplace(token, std::move(member));
    }
    std::shared_ptr<Member> find(void* token) const {
        const std::lock_guard guard(lock_);
        const auto found = members_.find(token);
        return found == members_.end() ? nullptr : found->second;
    }
    std::shared_ptr<Member> take(void* token) {
        const std::lock_guard guard(lock_);
        auto node = members_.extract(token);
        return node.empty() ? nullptr : std::move(node.mapped());
    }

  private:
    mutable std::mutex lock_;
    std::map<void*, std::shared_ptr<Member>> members_;  // guarded by lock_
};

std::uintptr_t nextNumber() {
    static std::atomic<std::uintptr_t> last = 0;
    return ++last;
}

// Two hosts may have one address, as behind a private network, and then sessions of one name: a
// random number tells their members apart.
std::string memberId(const std::string& session, std::uintptr_t number) {
    std::random_device random;
    return session + '.' + std::to_string(number) + '.' + std::to_string(random()) +
           std::to_string(random());
}

// Longer intervals are cut to 2^31 - 1 ms, some 24 days.
Rules rulesOf(unsigned activeGoal, unsigned long heartbeatMs, unsigned long prepareMs,
              unsigned long activateMs) {
    return {.activeGoal = activeGoal,
            .heartbeatMs = event::limitedMs(heartbeatMs),
            .prepareMs = event::limitedMs(prepareMs),
            .activateMs = event::limitedMs(activateMs)};
}

bool areValid(const Rules& rules) {
    return rules.activeGoal > 0 && rules.heartbeatMs > 0 && rules.activateMs > rules.heartbeatMs &&
           rules.activateMs >= rules.prepareMs;
}

int join(Membership membership, unsigned weight, const Rules& rules, rvft_MemberId* id) {
    rv_Session session = membership.session;
    if (Registry::instance().has(session, membership.group)) return kAlreadyMember;
    const auto subject = groupSubject(membership.group);
    const std::string name = rv_SessionName(session);
    if (!subject || name.empty()) return kCannotAnnounce;
    const std::uintptr_t number = nextNumber();
    auto* token = std::bit_cast<void*>(number);
    Rank rank{.weight = weight,
              .start = static_cast<std::uint64_t>(platform::wallMilliseconds()),
              .id = memberId(name, number)};
    auto member = std::make_shared<Member>(std::move(membership), std::move(rank), rules, token);
    Registry::instance().add(token, member);
    const FtCode code = member->start(*subject);
    if (code == kOk) {
        *id = static_cast<rvft_MemberId>(token);
    } else {
        Registry::instance().take(token);
    }
    return code;
}

}  // namespace

std::shared_ptr<Member> findMember(void* token) {
    return Registry::instance().find(token);
}

}  // namespace kvx::ft

int rvft_Join(rv_Session session, rvft_MemberId* id, const char* group, unsigned weight,
              unsigned activeGoal, unsigned long heartbeatMs, unsigned long prepareMs,
              unsigned long activateMs, rvft_Action action, void* closure) {
    if (!rv_IsOpen(session)) return kvx::ft::kBadSession;
    if (id == nullptr || group == nullptr || *group == '\0' || action == nullptr) {
        return kvx::ft::kBadArgument;
    }
    const kvx::ft::Rules rules = kvx::ft::rulesOf(activeGoal, heartbeatMs, prepareMs, activateMs);
    if (!kvx::ft::areValid(rules)) return kvx::ft::kBadArgument;
    try {
        return kvx::ft::join({session, group, action, closure}, weight, rules, id);
    } catch (const std::bad_alloc&) {
        return kvx::ft::kNoMemory;
    } catch (const std::exception&) {
        return kvx::ft::kCannotAnnounce;  // without a random number for the id
    }
}

int rvft_Leave(rvft_MemberId id) {
    const auto member = kvx::ft::Registry::instance().take(id);
    if (member == nullptr) return kvx::ft::kNoMember;
    member->leave();
    return kvx::ft::kOk;
}

int rvft_IsFresh(rvft_MemberId id) {
    const auto member = kvx::ft::findMember(id);
    return member != nullptr && member->isFresh() ? 1 : 0;
}

const char* rvft_ErrorText(rv_Session /*session*/, int code) {
    for (const auto& row : kvx::ft::kFtTexts) {
        if (row.code == code) return row.text;
    }
    return "";
}
