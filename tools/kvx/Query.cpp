// A question and its answer. The time-out counts from the last packet, so that a long answer may
// take any time and a lost packet is still detected.

#include "tools/kvx/Query.h"

#include <utility>

#include "mom/transport/TransportPacket.h"
#include "rv/message/WireReader.h"

namespace kvx::tool {

Query::Query(CVekRvNet& net, unsigned long timeoutMs, std::function<void()> finished)
    : net_(net), timeoutMs_(timeoutMs), finished_(std::move(finished)) {}

bool Query::ask(const std::string& subject, const std::string& text) {
    int status = 0;
    idle_.reset(net_.RRNNewTimer(&status, timeoutMs_, rv_TRUE, this, &net_));
    return idle_ &&
           CVekQryInfo::RQISendOQL(text.c_str(), subject.c_str(), this, nullptr, &net_, TRUE) == 1;
}

void Query::onData(const char*, RvSender*, const RvDatum& data, RvListener* listener) {
    if (over_ || data.type() != RVMSG_MSG) return;
    RvMsg packet(static_cast<const RvMsg&>(data));
    idle_->resetInterval(timeoutMs_);
    int status = kOk;
    std::unique_ptr<CVekAtom> atom(CVekTransport::RTDecodeMessage(&packet, status));
    if (status != kOk || !atom) return;
    count(*atom);
    if (transport_.RTAddMessage(atom.get()) == kOk) static_cast<void>(atom.release());
    if (state_ == PacketNumbers::State::Waiting) return;
    finish();
    net_.RRNRemoveListener(listener->subject());
}

void Query::onTimeout(RvListener* listener) {
    // The time-out has passed: stop listening.
    net_.RRNRemoveListener(listener->subject());
}

void Query::count(const CVekAtom& atom) {
    unsigned char* data = nullptr;
    int length = 0;
    if (atom.RAUChar(&data, &length) != kOk) return;
    const packet::Bytes bytes(data, static_cast<std::size_t>(length));
    const auto header = packet::readHeader(bytes);
    if (!header) return;
    state_ = numbers_.take(*header);
    const packet::Bytes payload = bytes.subspan(packet::kHeaderSize);
    const bool compressed =
        header->kind == packet::kCompressed && payload.size() >= packet::kLengthSize;
    ++totals_.packets;
    totals_.sentBytes += payload.size();
    totals_.plainBytes += compressed ? loadBig32(payload.data()) : payload.size();
}

void Query::onTimer(RvTimer*) {
    if (!over_) finish();
}

void Query::finish() {
    over_ = true;
    if (finished_) finished_();
}

}  // namespace kvx::tool
