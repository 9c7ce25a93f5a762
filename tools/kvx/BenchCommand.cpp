// kvx bench: this process sends to itself through the daemon, over one session. The figures include
// the daemon, the link in both directions and this process's own work.

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/bus/Client.h"
#include "tools/bus/Complain.h"
#include "tools/bus/Output.h"
#include "tools/bus/Ticker.h"
#include "tools/kvx/Commands.h"
#include "tools/kvx/Window.h"

namespace kvx::tool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned long kStallLookMs = 1000;  // between two checks for a stall

double secondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

double percentile(std::vector<double>& sorted, double share) {
    const auto last = static_cast<double>(sorted.size() - 1);
    return sorted[static_cast<std::size_t>(last * share)];
}

// Answers each request with its own data.
class Echo : public RvDataCallback {
  public:
    void onData(const char*, RvSender* replyTo, const RvDatum& data, RvListener*) override {
        if (replyTo != nullptr) replyTo->send(data);
    }
};

// Consecutive round trips; every answer starts the next request.
class RoundTrips : public RvDataCallback {
  public:
    RoundTrips(bus::Client& client, RvSender& sender, const RvDatum& datum, std::uint64_t count)
        : client_(client), sender_(sender), datum_(datum), left_(count) {}

    void next() {
        begin_ = Clock::now();
        listener_.reset(sender_.sendRequest(datum_, kStallMs, this, nullptr));
        if (!listener_) client_.leave(kFailure);
    }

    void onData(const char*, RvSender*, const RvDatum&, RvListener*) override {
        microseconds.push_back(secondsSince(begin_) * 1e6);
        if (--left_ == 0) return client_.leave(kSuccess);
        next();
    }

    void onTimeout(RvListener*) override { client_.leave(kFailure); }

    std::vector<double> microseconds;

  private:
    bus::Client& client_;
    RvSender& sender_;
    const RvDatum& datum_;
    std::uint64_t left_;
    Clock::time_point begin_;
    std::unique_ptr<RvListener> listener_;
};

// A stream with a bounded window: after half a window has come back, half a window is sent. Gives
// up when a message is known to be lost, or none has come back for too long.
class Stream : public RvDataCallback {
  public:
    Stream(bus::Client& client, RvSender& sender, const RvDatum& datum, std::uint64_t count)
        : client_(client),
          sender_(sender),
          datum_(datum),
          count_(count),
          window_(Window(datum.size()).messages()) {}

    void fill() {
        while (sent_ < count_ && sent_ - heard_ < window_) {
            if (!(sender_.send(datum_) == RvStatus(0))) return client_.leave(kFailure);
            ++sent_;
        }
    }

    void onData(const char*, RvSender*, const RvDatum&, RvListener*) override {
        if (heard_ == sent_) return;  // of another sender
        lastHeard_ = Clock::now();
        if (++heard_ == count_) return client_.leave(kSuccess);
        if (sent_ - heard_ <= window_ / 2) fill();
    }

    void giveUpWhenStalled() {
        const bool stalled = secondsSince(lastHeard_) * 1000 > kStallMs;
        if (stalled || client_.lostMessages() != 0) client_.leave(kFailure);
    }

    std::uint64_t heard() const { return heard_; }

  private:
    bus::Client& client_;
    RvSender& sender_;
    const RvDatum& datum_;
    const std::uint64_t count_;
    const std::uint64_t window_;
    std::uint64_t sent_ = 0;
    std::uint64_t heard_ = 0;
    Clock::time_point lastHeard_ = Clock::now();
};

bool measureRoundTrips(bus::Client& client, RvSender& sender, const RvDatum& datum,
                       const BenchOptions& options) {
    RoundTrips trips(client, sender, datum, options.requests);
    auto& times = trips.microseconds;
    std::optional<bus::Progress> progress;
    const int status = client.run([&] {
        progress.emplace(client.net(), [&] {
            return fmt::format("{} of {} round trips", times.size(), options.requests);
        });
        trips.next();
    });
    progress.reset();
    if (status != kSuccess) return false;
    std::sort(times.begin(), times.end());
    const double p50 = percentile(times, 0.5);
    const double p99 = percentile(times, 0.99);
    bus::printLine(options.connection.json
                       ? fmt::format(R"({{"round_trips":{},"p50_us":{:.1f},"p99_us":{:.1f},)"
                                     R"("max_us":{:.1f}}})",
                                     times.size(), p50, p99, times.back())
                       : fmt::format("{} round trips of {} bytes: p50 {:.1f} us, p99 {:.1f} us, "
                                     "max {:.1f} us",
                                     times.size(), options.bytes, p50, p99, times.back()));
    return bus::flushOutput();
}

bool measureStream(bus::Client& client, Stream& stream, const BenchOptions& options) {
    std::optional<bus::Progress> progress;
    std::optional<bus::Ticker> look;
    auto begin = Clock::now();
    const int status = client.run([&] {
        progress.emplace(client.net(), [&] {
            return fmt::format("{} of {} messages", stream.heard(), options.messages);
        });
        look.emplace(client.net(), kStallLookMs, bus::Ticker::Repeat::Forever,
                     [&] { stream.giveUpWhenStalled(); });
        begin = Clock::now();
        stream.fill();
    });
    const double seconds = secondsSince(begin);
    progress.reset();
    if (status != kSuccess) return false;
    const double rate = static_cast<double>(options.messages) / seconds;
    bus::printLine(
        options.connection.json
            ? fmt::format(R"({{"stream":{},"seconds":{:.3f},"per_second":{:.0f}}})",
                          options.messages, seconds, rate)
            : fmt::format("{} messages of {} bytes streamed in {:.3f} s: {:.0f} a second",
                          options.messages, options.bytes, seconds, rate));
    return true;
}

std::string benchSubject(const char* what) {
    return fmt::format("_BENCH.{}.{}", what, CVekProcess::Instance().GetPID());
}

}  // namespace

int bench(const BenchOptions& options) {
    bus::Client client(options.connection);
    if (!client.isUp()) return kFailure;
    const std::string content(options.bytes, 'x');
    const RvDatum datum(RVMSG_OPAQUE, options.bytes, content.data());
    const std::string echoSubject = benchSubject("ECHO");
    const std::string streamSubject = benchSubject("STREAM");
    const std::unique_ptr<RvSender> requests(client.session().newSender(echoSubject.c_str()));
    const std::unique_ptr<RvSender> sender(client.session().newSender(streamSubject.c_str()));
    Echo echo;
    Stream stream(client, *sender, datum, options.messages);
    client.leaveWithoutDaemon();
    const bool listens = client.net().RRNAddExService(echoSubject.c_str(), &echo) == kOk &&
                         client.net().RRNAddExService(streamSubject.c_str(), &stream) == kOk;
    if (listens && measureRoundTrips(client, *requests, datum, options) &&
        measureStream(client, stream, options)) {
        return kSuccess;
    }
    if (!bus::outputHasFailed()) {
        bus::complain(
            fmt::format("the bus daemon at {} does not carry the messages", client.daemon()));
    }
    return kFailure;
}

}  // namespace kvx::tool
