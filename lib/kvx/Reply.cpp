// Rows become packets as they come. While the querier takes packets as they come, each leaves when
// the next one is sealed; otherwise all wait for the end, since each must say how many there are.

#include "kvx/Reply.h"

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

constexpr std::size_t kMessageRoom = 64;  // bytes of a message beside its packet

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
    transport.RTCreatePackets(VEK_TRANS_V1, true);
    const std::unique_ptr<CVekAtomVector> packets(transport.RTEncodes());
    return packetMessage(*packets->RAVGetValue(0), sequence, sequence, STORE_PERMISSION_DENIED);
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
    if (!detail::addTo(*rowsToPack_, record)) {
        refuse(reason(kNoEncoding), STORE_PERMISSION_DENIED);
        return false;
    }
    if (++rows_ < rowsOfPacket()) return true;
    seal();
    return giveWay();
}

bool Reply::State::add(const Changes::Notice& notice) {
    const auto size = static_cast<int>(notice.packet->size());
    return hold({std::make_unique<CVekAtom>(
                     static_cast<const unsigned char*>(notice.packet->data()), size),
                 notice.stamp}) &&
           giveWay();
}

void Reply::State::asOf(const Stamp& stamp, RowSource source) {
    stamp_ = stamp;
    source_ = std::move(source);
}

void Reply::State::refuse(const Record& why, EVekStoreErrorStatus status) {
    if (status_ != STORE_COMPLETE) return;
    status_ = status;
    sealed_ -= static_cast<std::int64_t>(held_.size());
    held_.clear();
    rowsToPack_.emplace(nullptr);
    rows_ = 0;
    if (detail::addTo(*rowsToPack_, why)) ++rows_;
}

// The rows that are collected become a packet.
void Reply::State::seal() {
    if (std::exchange(rows_, 0) > 0) {
        rowsToPack_->RTCreatePackets(version_, true);
    } else {
        rowsToPack_->RTNilResults();
    }
    const std::unique_ptr<CVekAtomVector> made(rowsToPack_->RTEncodes());
    std::vector<Packet> packets(made->RAVSize());
    for (unsigned i = 0; i < made->RAVSize(); ++i) {
        packets[i] = {std::unique_ptr<CVekAtom>(made->RAVGetValue(i)), stamp_};
    }
    made->RAVReset();
    if (packets.empty()) return refuse(reason(kNoEncoding), STORE_PERMISSION_DENIED);
    for (Packet& packet : packets) {
        if (!hold(std::move(packet))) return;
    }
}

// False when it is too large, and the answer is refused.
bool Reply::State::hold(Packet packet) {
    if (packet.bytes->RALength() > packet::kLargestPacket && status_ == STORE_COMPLETE) {
        refuse(reason(kTooLarge), STORE_PERMISSION_DENIED);
        return false;
    }
    held_.push_back(std::move(packet));
    ++sealed_;
    while (answer_->isStreamed() && held_.size() > 1) {
        send(std::move(held_.front()), 0);
        held_.pop_front();
    }
    return true;
}

void Reply::State::send(Packet packet, std::int64_t count) {
    if (sent_ == 0 && count != 1 && begun_ && isWanted()) begun_();
    ++sent_;
    auto ahead = std::make_unique<RvMsg>(packet.bytes->RALength() + kMessageRoom);
    if (packet.stamp) appendStamp(*ahead, *packet.stamp);
    if (stamp_) appendSource(*ahead, source_);
    answer_->add(detail::packetMessage(*packet.bytes, sent_, count, status_, std::move(ahead)),
                 sent_ == count);
}

// False when nobody wants more of it.
bool Reply::State::giveWay() {
    if (turn_ != nullptr && answer_->isFull()) {
        turn_->end();
        answer_->waitForRoom();
        turn_->begin();
    } else if (turn_ != nullptr) {
        turn_->pass();
    }
    return isWanted() && status_ == STORE_COMPLETE;
}

void Reply::State::finish() {
    if (status_ == STORE_COMPLETE && sealed_ == 0 && rows_ == 0) status_ = STORE_ZERO_MATCHES;
    if (rows_ > 0 || sealed_ == 0) seal();
    if (held_.empty()) seal();  // what was sealed was refused
    while (!held_.empty()) {
        send(std::move(held_.front()), sealed_);
        held_.pop_front();
    }
}

}  // namespace kvx
