// A member changes its role at most once in the activation interval, and announces it at once: two
// beats that are closer together leave no room for a change that was not heard.

#include "tools/beats/GroupTable.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>
#include <string_view>

namespace kvx::beats {

namespace {

constexpr Milliseconds kMemberSilence = 4'500;      // three beats
constexpr int kMostOfProcess = 64;                  // members that are looked through
constexpr Milliseconds kActivation = 4'800;         // of an engine's group
constexpr std::int64_t kOpenToJoinSeconds = 60;     // from a session's opening to its joining
constexpr std::size_t kTimeDigits = 8;              // hexadecimal, seconds
constexpr std::uint32_t kActive = 2, kLeaving = 3;  // states in a message

bool readText(const RvMsg& message, const char* name, std::string& text) {
    RvDatum field;
    if (!(message.get(name, field) == RvStatus(0)) || field.type() != RVMSG_STRING) return false;
    const auto* const begin = static_cast<const char*>(field.data());
    text.assign(begin, strnlen(begin, field.size()));
    return !text.empty() && text.size() <= kLongestText;
}

template <class Number>
bool readNumber(const RvMsg& message, const char* name, Number& number) {
    RvDatum field;
    if (!(message.get(name, field) == RvStatus(0)) || field.type() != RVMSG_UINT ||
        field.size() != sizeof number) {
        return false;
    }
    std::memcpy(&number, field.data(), sizeof number);
    return true;
}

template <class Number>
std::optional<Number> numberIn(std::string_view digits, int base) {
    Number number = 0;
    const char* const end = digits.data() + digits.size();
    const auto [read, error] = std::from_chars(digits.data(), end, number, base);
    return error == std::errc() && read == end ? std::optional(number) : std::nullopt;
}

}  // namespace

std::optional<MemberBeat> readMemberBeat(const RvMsg& message) {
    MemberBeat beat;
    std::uint64_t start = 0;
    std::uint32_t state = 0;
    if (!readText(message, "id", beat.id) || !readText(message, "group", beat.group) ||
        !readNumber(message, "start", start) || !readNumber(message, "state", state) ||
        start > INT64_MAX || state == 0 || state > kLeaving) {
        return std::nullopt;
    }
    beat.startMs = static_cast<std::int64_t>(start);
    beat.isActive = state == kActive;
    beat.isLeaving = state == kLeaving;
    return beat;
}

// A session's name is ADDRESS.PROCESS TIME NUMBER, hexadecimal and without the spaces. Its time is
// shortly before the member's start, which tells where the process id ends.
std::optional<std::int64_t> processOf(const MemberBeat& beat) {
    const std::size_t begin = beat.id.find('.') + 1;
    const std::string_view name =
        std::string_view(beat.id).substr(begin, beat.id.find('.', begin) - begin);
    for (std::size_t digits = 1; begin != 0 && digits + kTimeDigits <= name.size(); ++digits) {
        const auto opened = numberIn<std::int64_t>(name.substr(digits, kTimeDigits), 16);
        const auto pid = numberIn<std::int64_t>(name.substr(0, digits), 16);
        if (!opened || !pid) return std::nullopt;
        const std::int64_t apart = beat.startMs / 1000 - *opened;
        if (apart >= -1 && apart <= kOpenToJoinSeconds) return pid;
    }
    return std::nullopt;
}

bool Member::isSilent(Milliseconds now) const {
    return !hasLeft && now - awaitedSince > kMemberSilence;
}

std::optional<GroupName> groupNameOf(const std::string& group, const std::string& domain) {
    const std::size_t dot = group.rfind('.');
    if (dot == std::string::npos) return std::nullopt;
    const auto tier = numberIn<int>(std::string_view(group).substr(dot + 1), 10);
    GroupName name{.base = group.substr(0, dot), .tier = tier.value_or(0)};
    const std::string suffix = domain.empty() ? "" : "." + domain;
    if (!tier || !name.base.ends_with(suffix)) return std::nullopt;
    name.base.resize(name.base.size() - suffix.size());
    return name;
}

void GroupTable::hear(const MemberBeat& beat, Milliseconds now, std::int64_t wallMs) {
    forgetSilent(now);
    const auto known = byId_.find(beat.id);
    if (known == byId_.end()) {
        const auto pid = processOf(beat);
        if (pid && !beat.isLeaving) insert(beat, *pid, now, wallMs);
        return;
    }
    Member& member = known->second->member;
    const bool wasDeaf = now - member.lastHeard >= kActivation;
    if (wasDeaf || member.isPrimary != beat.isActive) {
        member.roleSince = now;
        member.roleSinceMs = wallMs;
        member.isRoleSeen = !wasDeaf;
    }
    member.isPrimary = beat.isActive;
    member.hasLeft = beat.isLeaving;
    member.lastHeard = member.awaitedSince = now;
    entries_.splice(entries_.end(), entries_, known->second);
}

// One that waits and has joined less than the activation interval ago has waited since then.
void GroupTable::insert(const MemberBeat& beat, std::int64_t pid, Milliseconds now,
                        std::int64_t wallMs) {
    if (entries_.size() == kMostServices) dropOldest();
    const std::int64_t joined = wallMs - beat.startMs;
    const bool isNew = !beat.isActive && joined >= 0 && joined < kActivation;
    entries_.push_back({beat.id, pid,
                        Member{.group = beat.group,
                               .lastHeard = now,
                               .awaitedSince = now,
                               .roleSince = isNew ? now - joined : now,
                               .roleSinceMs = isNew ? beat.startMs : wallMs,
                               .isRoleSeen = isNew,
                               .isPrimary = beat.isActive}});
    const auto entry = std::prev(entries_.end());
    byId_.emplace(beat.id, entry);
    byProcess_.emplace(pid, entry);
}

void GroupTable::resume(Milliseconds now) {
    for (Entry& entry : entries_) entry.member.awaitedSince = now;
}

void GroupTable::forgetSilent(Milliseconds now) {
    while (!entries_.empty() && now - entries_.front().member.lastHeard >= kForgetAfter) {
        dropOldest();
    }
}

void GroupTable::dropOldest() {
    const auto [begin, end] = byProcess_.equal_range(entries_.front().pid);
    byProcess_.erase(std::find_if(
        begin, end, [this](const auto& one) { return one.second == entries_.begin(); }));
    byId_.erase(entries_.front().id);
    entries_.pop_front();
}

const Member* GroupTable::find(std::int64_t pid, const std::string& domain,
                               Milliseconds now) const {
    const auto [begin, end] = byProcess_.equal_range(pid);
    const Member* found = nullptr;
    int alive = 0;
    int seen = 0;
    for (auto one = begin; one != end; ++one) {
        if (++seen > kMostOfProcess) return nullptr;
        const Member& member = one->second->member;
        if (!groupNameOf(member.group, domain)) continue;
        const bool isAlive = !member.hasLeft && !member.isSilent(now);
        alive += isAlive ? 1 : 0;
        const bool isLater = found == nullptr || member.lastHeard >= found->lastHeard;
        if (isAlive || (alive == 0 && isLater)) found = &member;
    }
    return alive > 1 ? nullptr : found;
}

}  // namespace kvx::beats
