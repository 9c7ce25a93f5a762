#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "kvx/PacketNumbers.h"
#include "mom/mom.h"

namespace kvx::tool {

/// One question to a service, and its answer collected packet by packet.
///
/// `finished` is called once: when every packet has come, when two answers have been mixed, or when
/// `timeoutMs` passed without a packet.
/// The object must stay alive until then, and as long as the loop runs. Its reply listener is
/// removed when the answer is complete, at the latest with the net. Main thread only.
class Query : public RvDataCallback, public RvTimerCallback {
  public:
    /// Totals of the packets of an answer. Bytes are those of the records with their lengths,
    /// uncompressed and as received.
    struct Totals {
        std::uint64_t packets = 0;
        std::uint64_t plainBytes = 0;
        std::uint64_t sentBytes = 0;
    };

    Query(CVekRvNet& net, unsigned long timeoutMs, std::function<void()> finished);

    /// False when the question could not be sent.
    [[nodiscard]] bool ask(const std::string& subject, const std::string& text);

    bool isComplete() const { return state_ == PacketNumbers::State::Complete; }
    /// Two members or services have answered, or one twice.
    bool isMixed() const { return state_ == PacketNumbers::State::Mixed; }
    const Totals& totals() const { return totals_; }
    CVekTransport& transport() { return transport_; }

    void onData(const char* subject, RvSender* replyTo, const RvDatum& data,
                RvListener* listener) override;
    void onTimeout(RvListener* listener) override;
    void onTimer(RvTimer* timer) override;

  private:
    void count(const CVekAtom& atom);
    void finish();

    CVekRvNet& net_;
    const unsigned long timeoutMs_;
    std::function<void()> finished_;
    CVekTransport transport_{nullptr};
    Totals totals_;
    std::unique_ptr<RvTimer> idle_;
    PacketNumbers numbers_;
    PacketNumbers::State state_ = PacketNumbers::State::Waiting;
    bool over_ = false;
};

}  // namespace kvx::tool
