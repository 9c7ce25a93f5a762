// What comes from the engine: a frame on a subject, and a control message. Read, taken by a ledger
// and by an exchange, whose memory is bounded by the bytes received.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "rvbridge/EngineSubject.h"
#include "rvbridge/Exchange.h"
#include "rvbridge/Ledger.h"

namespace {

using namespace kvx;
using namespace kvx::bridge;

void require(bool condition) {
    if (!condition) std::abort();
}

struct Owner : ExchangeActions, ReceiverSink {
    void sendToAll(std::uint64_t, Bytes) override {}
    void sendTo(std::string_view, Bytes) override {}
    void listen(SubjectView) override { ++listens; }
    void cancel(SubjectView) override { --listens; }
    void hostUp(const HostState&) override {}
    void hostDown(const HostState&) override {}
    void refused(const std::string&) override {}
    void ready() override {}
    void marksWanted(std::string_view, std::uint64_t) override {}
    bool message(SubjectView, Bytes) override { return true; }
    void lost(std::string_view, SubjectView, std::uint64_t, kvx::bridge::LossCause) override {}
    bool heardAllOf(const Frame&, SubjectView) override { return true; }
    bool mayBegin(const Frame&, SubjectView) override { return true; }
    bool isSubscribedSince(std::uint64_t, SubjectView) override { return true; }
    int listens = 0;
};

void readSubject(std::string_view text) {
    const EngineSubjects space("7500", "");
    const auto subject = space.subjectOf(text);
    if (!subject) return;
    const std::string there = space.subscription(*subject);
    constexpr std::string_view kDirect = "kvx.7500.=.d.";
    if (text.starts_with(kDirect)) {
        // Whatever the host is called.
        const std::string_view rest = text.substr(text.find('.', kDirect.size()));
        require(rest == std::string_view(there).substr(kDirect.size() - 1));
        return;
    }
    require(there == text || space.publication(*subject) == text);
}

void takeFrame(Bytes bytes) {
    const auto frame = readFrame(bytes);
    if (!frame) return;
    Owner owner;
    if (frame->kind != FrameKind::Control) {
        const Subject subject = *Subject::fromText("A");
        Receiver receiver(1, owner);
        receiver.take(*frame, subject);
        receiver.take(*frame, subject);
        require(receiver.unfinishedBytes() <= 2 * bytes.size() + 4'096);
        return;
    }
    Exchange exchange({"self", 1, "now"}, owner);
    exchange.start(0);
    exchange.receive(1, *frame);
    exchange.receive(2, *frame);
    exchange.tick(2'000'000);
    require(owner.listens >= 0);
    exchange.tick(3'000'000);
    exchange.tick(20'000'000);
    for (Microseconds now = 20'000'000; now < 40'000'000; now += 1'000'000) exchange.tick(now);
    require(owner.listens == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    readSubject({reinterpret_cast<const char*>(data), size});
    takeFrame({data, size});
    return 0;
}
