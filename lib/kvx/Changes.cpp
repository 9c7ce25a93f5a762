// Two epochs are at hand: `epoch_`, that of the member's role, which the main thread sets without
// waiting, and that of `last_`, which the next commit brings up to it under the lock. Until that
// commit the new epoch has the number 0. Notices of an epoch before may still be held; those of the
// epoch of `last_` are the newest ones.

#include "kvx/Changes.h"

#include <algorithm>
#include <chrono>
#include <mutex>
#include <random>
#include <shared_mutex>

#include "kvx/ReplyState.h"
#include "mom/mom.h"
#include "mom/transport/TransportPacket.h"

namespace kvx {

namespace {

Error invalid(const char* why) {
    return {Errc::InvalidArgument, why, "commit"};
}

// The one packet of what is in `transport`; nothing when it makes none or several.
std::optional<Changes::Packet> packetIn(CVekTransport& transport) {
    const auto packets = detail::pack(transport, VEK_TRANS_V1);
    unsigned char* bytes = nullptr;
    int length = 0;
    if (packets.size() != 1 || packets.front()->RAUChar(&bytes, &length) != kOk) {
        return std::nullopt;
    }
    return Changes::Packet(bytes, bytes + length);
}

// The packet of at most 100 changes; nothing when one has no encoding or they are too large.
std::optional<Changes::Packet> packetOf(std::span<const Record> changes) {
    CVekTransport transport(nullptr);
    for (const Record& change : changes) {
        if (!detail::addTo(transport, change)) return std::nullopt;
    }
    auto only = packetIn(transport);
    if (only && only->size() > packet::kLargestPacket) return std::nullopt;
    return only;
}

Result<std::vector<Changes::Packet>> packetsOf(std::span<const Record> changes) {
    if (!std::ranges::all_of(changes,
                             [](const Record& one) { return changeOf(one).has_value(); })) {
        return tl::unexpected(invalid("a record tells no change"));
    }
    std::vector<Changes::Packet> packets;
    while (!changes.empty()) {
        const auto some =
            changes.first(std::min<std::size_t>(changes.size(), VEK_TRANS_V1_RECORDS));
        auto packet = packetOf(some);
        if (!packet) return tl::unexpected(invalid("the records are too large for a message"));
        packets.push_back(std::move(*packet));
        changes = changes.subspan(some.size());
    }
    return packets;
}

Changes::Notice withoutChanges(const Stamp& stamp) {
    CVekTransport transport(nullptr);
    transport.RTNilResults();
    return {stamp, std::make_shared<const Changes::Packet>(
                       packetIn(transport).value_or(Changes::Packet()))};
}

}  // namespace

RvMsg Changes::Notice::message() const {
    RvMsg message(static_cast<unsigned long>(packet->size() + detail::kMessageRoom));
    if (appendStamp(message, stamp)) {
        message.append("a", RVMSG_OPAQUE, static_cast<rvmsg_Size>(packet->size()), packet->data());
    }
    return message;
}

Changes::Changes(Outlet outlet) : Changes(std::move(outlet), Limits()) {}

Changes::Changes(Outlet outlet, Limits limits) : outlet_(std::move(outlet)), limits_(limits) {}

void Changes::setKey(std::string_view table, std::vector<std::string> fields) {
    const std::unique_lock guard(mutex_);
    keys_.insert_or_assign(std::string(table), std::move(fields));
}

RowSource Changes::source(std::string_view table) const {
    const std::shared_lock guard(mutex_);
    const auto found = keys_.find(table);
    return {std::string(table), found != keys_.end() ? found->second : std::vector<std::string>()};
}

Result<> Changes::commit(std::span<const Record> changes, const std::function<Result<>()>& apply) {
    auto packets = packetsOf(changes);
    if (!packets) return tl::unexpected(std::move(packets.error()));
    const std::unique_lock guard(mutex_);
    const std::uint64_t epoch = epoch_;
    if (epoch == 0) return tl::unexpected(invalid("this member is not active"));
    if (auto room = outlet_.room(packets->size()); !room) return room;
    if (apply) {
        if (auto applied = apply(); !applied) return applied;
    }
    if (last_.epoch != epoch) last_ = {epoch, 0};
    for (Packet& packet : *packets) {
        ++last_.number;
        const Notice notice{last_, std::make_shared<const Packet>(std::move(packet))};
        hold(notice);
        outlet_.send(notice);
    }
    return {};
}

void Changes::hold(const Notice& notice) {
    held_.push_back(notice);
    heldBytes_ += notice.packet->size();
    while (!held_.empty() && (held_.size() > limits_.notices || heldBytes_ > limits_.bytes)) {
        heldBytes_ -= held_.front().packet->size();
        held_.pop_front();
    }
}

std::uint64_t Changes::numberOf(std::uint64_t epoch) const {
    return last_.epoch == epoch ? last_.number : 0;
}

Stamp Changes::read(const std::function<void()>& take) const {
    const std::shared_lock guard(mutex_);
    const std::uint64_t epoch = epoch_;
    take();
    return {epoch, numberOf(epoch)};
}

void Changes::tell() const {
    const std::shared_lock guard(mutex_, std::try_to_lock);
    const std::uint64_t epoch = epoch_;
    if (!guard.owns_lock() || epoch == 0) return;
    outlet_.send(withoutChanges({epoch, numberOf(epoch)}));
}

std::optional<std::vector<Changes::Notice>> Changes::since(const Stamp& stamp) const {
    std::vector<Notice> missed;
    {
        const std::shared_lock guard(mutex_);
        const std::uint64_t epoch = epoch_;
        const std::uint64_t number = numberOf(epoch);
        if (epoch == 0 || stamp.epoch != epoch || stamp.number > number) return std::nullopt;
        const std::uint64_t count = number - stamp.number;
        if (count > 0 && count > held_.size()) return std::nullopt;
        missed.assign(held_.end() - static_cast<std::ptrdiff_t>(count), held_.end());
    }
    if (missed.empty()) missed.push_back(withoutChanges(stamp));
    return missed;
}

bool Changes::keepEpoch(bool isActive, bool mayAct) {
    hasStood_ = isActive && (hasStood_ || (mayHaveActed_ && !mayAct));
    const bool isNew = isActive && (epoch_ == 0 || (hasStood_ && mayAct));
    hasStood_ = hasStood_ && !isNew;
    mayHaveActed_ = isActive && mayAct;
    if (isNew) begin(newEpoch());
    if (!isActive) begin(0);
    return isNew;
}

std::uint64_t Changes::newEpoch() {
    constexpr unsigned kRandomBits = 22;
    const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::system_clock::now().time_since_epoch());
    std::random_device random;
    return static_cast<std::uint64_t>(now.count()) << kRandomBits |
           (random() & ((1U << kRandomBits) - 1));
}

}  // namespace kvx
