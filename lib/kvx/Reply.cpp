// Rows become packets as they come. While the querier takes packets as they come, each leaves when
// the next one is sealed; otherwise all wait for the end, since each must say how many there are.

#include "kvx/Reply.h"

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

#include "kvx/ReplyState.h"
#include "mom/transport/TransportPacket.h"

namespace kvx {

namespace {

constexpr const char* kNoEncoding = "a row of the answer cannot be encoded";
constexpr const char* kNotActive = "this member is not active any more";
constexpr const char* kTooLarge = "the rows are too large for a message";

Record reason(std::string_view why, int position = 0) {
    Record record{{"error", why}};
    if (position > 0) static_cast<void>(record.set("position", position));
    return record;
}

}  // namespace

bool detail::addTo(CVekTransport& transport, const Record& record) {
    unsigned char* bytes = nullptr;
    int length = 0;
    if (record.base().ROMEncode(&bytes, &length) != kOk) return false;
    auto atom = std::make_unique<CVekAtom>(bytes, length);  // takes the bytes over
    CVekAtom* taken = atom.release();
    if (transport.RTTakeROMP(&taken) == kOk) return true;
    delete taken;
    return false;
}

std::unique_ptr<RvMsg> detail::packetMessage(const CVekAtom& packet, std::int64_t sequence,
                                             std::int64_t count, EVekStoreErrorStatus status,
                                             std::unique_ptr<RvMsg> message) {
    unsigned char* bytes = nullptr;
    int length = 0;
    packet.RAUChar(&bytes, &length);
    const auto size = static_cast<std::size_t>(length);
    auto header = packet::readHeader({bytes, size}).value_or(packet::Header());
    header.sequence = sequence;
    header.count = count;
    header.status = static_cast<std::uint16_t>(status);
    packet::writeHeader(bytes, header);
    if (!message) message = std::make_unique<RvMsg>(size + kMessageRoom);
    message->append("a", RVMSG_OPAQUE, static_cast<rvmsg_Size>(size), bytes);
    return message;
}

std::unique_ptr<RvMsg> detail::refusalMessage(std::string_view why, std::int64_t sequence) {
    CVekTransport transport(nullptr);
    static_cast<void>(addTo(transport, reason(why)));
    const auto packets = pack(transport, VEK_TRANS_V1);
    if (packets.empty()) return std::make_unique<RvMsg>(0UL);  // there is no memory
    return packetMessage(*packets.front(), sequence, sequence, STORE_PERMISSION_DENIED);
}

bool Reply::row(const Record& record) {
    return state_.add(record);
}

void Reply::asOf(const Stamp& stamp, RowSource source) {
    stamp.epoch != 0 ? state_.asOf(stamp, std::move(source)) : refuse(kNotActive);
}

void Reply::refuse(std::string_view why, int position, EVekStoreErrorStatus status) {
    state_.refuse(reason(why, position), status);
}

bool Reply::isWanted() const {
    return state_.isWanted();
}

// An answer that lacks a row must not look whole.
bool Reply::State::add(const Record& record) {
    if (status_ != STORE_COMPLETE) return false;
    if (!detail::addTo(*open_, record)) {
        refuse(reason(kNoEncoding), STORE_PERMISSION_DENIED);
        return false;
    }
    if (++rows_ < rowsOfBlock()) return true;
    closeBlock();
    while (blocks_.size() > kMostBlocks) takeBlock();
    return giveWay();
}

bool Reply::State::add(const Changes::Notice& notice) {
    std::vector<detail::PackedRows> packets;
    packets.push_back(
        std::make_unique<CVekAtom>(static_cast<const unsigned char*>(notice.packet->data()),
                                   static_cast<int>(notice.packet->size())));
    hold(std::move(packets), notice.stamp);
    return giveWay();
}

void Reply::State::asOf(const Stamp& stamp, RowSource source) {
    stamp_ = stamp;
    source_ = std::move(source);
}

void Reply::State::refuse(const Record& why, EVekStoreErrorStatus status) {
    if (status_ != STORE_COMPLETE) return;
    status_ = status;
    blocks_.clear();
    sealed_ -= static_cast<std::int64_t>(held_.size());
    held_.clear();
    open_ = newBlock();
    rows_ = detail::addTo(*open_, why) ? 1 : 0;
}

// The rows that are collected become a packet, soon.
void Reply::State::closeBlock() {
    rows_ = 0;
    if (worker_ == nullptr || version_ != VEK_TRANS_V1)
        return hold(detail::pack(*open_, version_), stamp_);
    blocks_.push_back(std::make_shared<Block>(std::exchange(open_, newBlock()), version_));
    worker_->packer.give(blocks_.back());
}

void Reply::State::takeBlock() {
    const std::shared_ptr<Block> block = std::move(blocks_.front());
    blocks_.pop_front();
    hold(worker_->packer.take(*block), stamp_);
}

void Reply::State::hold(std::vector<detail::PackedRows> packets,
                        const std::optional<Stamp>& stamp) {
    const bool isTooLarge = std::ranges::any_of(
        packets, [](const auto& one) { return one->RALength() > packet::kLargestPacket; });
    if (packets.empty() || isTooLarge) {
        return refuse(reason(isTooLarge ? kTooLarge : kNoEncoding), STORE_PERMISSION_DENIED);
    }
    for (auto& bytes : packets) {
        held_.push_back({std::move(bytes), stamp});
        ++sealed_;
    }
    if (answer_->isStreamed()) send(held_.size() - 1, 0);
}

// Sends the oldest packets; with a count they are the last ones.
void Reply::State::send(std::size_t packets, std::int64_t count) {
    if (packets == 0) return;
    if (sent_ == 0 && count != 1 && begun_ && isWanted()) begun_();
    std::vector<std::unique_ptr<RvMsg>> messages;
    for (; packets > 0; --packets) {
        const Packet& packet = held_.front();
        auto ahead = std::make_unique<RvMsg>(packet.bytes->RALength() + detail::kMessageRoom);
        if (packet.stamp) appendStamp(*ahead, *packet.stamp);
        if (stamp_) appendSource(*ahead, source_);
        messages.push_back(
            detail::packetMessage(*packet.bytes, ++sent_, count, status_, std::move(ahead)));
        held_.pop_front();
    }
    answer_->add(std::move(messages), count != 0);
}

// False when nobody wants more of it.
bool Reply::State::giveWay() {
    if (worker_ != nullptr && answer_->isFull()) {
        worker_->turn.end();
        answer_->waitForRoom();
        worker_->turn.begin();
    } else if (worker_ != nullptr) {
        worker_->turn.pass();
    }
    if (worker_ != nullptr && sent_ == 0 && isWanted() && worker_->isTooLate()) answer_->drop();
    return isWanted() && status_ == STORE_COMPLETE;
}

void Reply::State::finish() {
    while (!blocks_.empty()) takeBlock();
    if (status_ == STORE_COMPLETE && sealed_ == 0 && rows_ == 0) {
        status_ = STORE_ZERO_MATCHES;
        open_->RTNilResults();
    }
    if (rows_ > 0 || sealed_ == 0) hold(detail::pack(*open_, version_), stamp_);
    if (held_.empty()) hold(detail::pack(*open_, version_), stamp_);  // what was packed was refused
    send(held_.size(), sealed_);
}

}  // namespace kvx
