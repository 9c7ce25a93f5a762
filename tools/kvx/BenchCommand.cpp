// kvx bench: this process sends to itself through the daemon, over one session. The figures include
// the daemon, the link in both directions and this process's own work. Beside each stands what the
// same bytes take through a relay that only copies, which no daemon can be faster than.

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
#include "tools/kvx/BareRelay.h"
#include "tools/kvx/Commands.h"
#include "tools/kvx/Window.h"

namespace kvx::tool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned long kStallLookMs = 1000;  // between two checks for a stall

double secondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

double percentile(const std::vector<double>& sorted, double share) {
    const auto last = static_cast<double>(sorted.size() - 1);
    return sorted[static_cast<std::size_t>(last * share)];
}

// The median time of `count` times `passes` messages through the relay; nothing without one.
std::optional<double> bareMicroseconds(BareRelay& relay, const BenchOptions& options, int passes) {
    std::vector<double> times;
    for (std::uint64_t i = 0; i < options.requests; ++i) {
        const auto begin = Clock::now();
        for (int pass = 0; pass < passes; ++pass) {
            if (!relay.carry(options.bytes)) return std::nullopt;
        }
        times.push_back(secondsSince(begin) * 1e6);
    }
    std::sort(times.begin(), times.end());
    return percentile(times, 0.5);
}

struct TimesText {
    const char* json;
    const char* text;
};
constexpr TimesText kRoundTripsText{"round_trips", "round trips of {} bytes"};
constexpr TimesText kOneWayText{"one_way", "messages of {} bytes one way"};

bool printTimes(const TimesText& what, std::vector<double>& times, std::optional<double> bare,
                const BenchOptions& options) {
    std::sort(times.begin(), times.end());
    const double p50 = percentile(times, 0.5);
    const double p99 = percentile(times, 0.99);
    if (options.connection.json) {
        bus::printLine(fmt::format(
            R"({{"{}":{},"p50_us":{:.1f},"p99_us":{:.1f},"max_us":{:.1f},"bare_p50_us":{}}})",
            what.json, times.size(), p50, p99, times.back(),
            bare ? fmt::format("{:.1f}", *bare) : "null"));
        return bus::flushOutput();
    }
    const std::string name = fmt::format(fmt::runtime(what.text), options.bytes);
    bus::printLine(fmt::format(
        "{} {}: p50 {:.1f} us, p99 {:.1f} us, max {:.1f} us{}", times.size(), name, p50, p99,
        times.back(),
        bare ? fmt::format(" (bare relay: p50 {:.1f} us, ratio {:.2f})", *bare, p50 / *bare) : ""));
    return bus::flushOutput();
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
    Stream(bus::Client& client, RvSender& sender, const RvDatum& datum, std::uint64_t count,
           std::uint64_t window)
        : client_(client), sender_(sender), datum_(datum), count_(count), window_(window) {}

    void fill() {
        while (sent_ < count_ && sent_ - heard_ < window_) {
            if (window_ == 1) sentAt_ = Clock::now();
            if (!(sender_.send(datum_) == RvStatus(0))) return client_.leave(kFailure);
            ++sent_;
        }
    }

    void onData(const char*, RvSender*, const RvDatum&, RvListener*) override {
        if (heard_ == sent_) return;  // of another sender
        lastHeard_ = Clock::now();
        if (window_ == 1) microseconds.push_back(secondsSince(sentAt_) * 1e6);
        if (++heard_ == count_) return client_.leave(kSuccess);
        if (sent_ - heard_ <= window_ / 2) fill();
    }

    void giveUpWhenStalled() {
        const bool stalled = secondsSince(lastHeard_) * 1000 > kStallMs;
        if (stalled || client_.lostMessages() != 0) client_.leave(kFailure);
    }

    std::uint64_t heard() const { return heard_; }
    std::uint64_t count() const { return count_; }

    std::vector<double> microseconds;  // of each message, where one follows the other

  private:
    bus::Client& client_;
    RvSender& sender_;
    const RvDatum& datum_;
    const std::uint64_t count_;
    const std::uint64_t window_;
    std::uint64_t sent_ = 0;
    std::uint64_t heard_ = 0;
    Clock::time_point sentAt_;  // the last one
    Clock::time_point lastHeard_ = Clock::now();
};

bool measureRoundTrips(bus::Client& client, RvSender& sender, const RvDatum& datum,
                       BareRelay& relay, const BenchOptions& options) {
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
    return printTimes(kRoundTripsText, times, bareMicroseconds(relay, options, 2), options);
}

// How long the stream takes, in seconds; nothing when it fails.
std::optional<double> run(bus::Client& client, Stream& stream) {
    std::optional<bus::Progress> progress;
    std::optional<bus::Ticker> look;
    auto begin = Clock::now();
    const int status = client.run([&] {
        progress.emplace(client.net(), [&] {
            return fmt::format("{} of {} messages", stream.heard(), stream.count());
        });
        look.emplace(client.net(), kStallLookMs, bus::Ticker::Repeat::Forever,
                     [&] { stream.giveUpWhenStalled(); });
        begin = Clock::now();
        stream.fill();
    });
    const double seconds = secondsSince(begin);
    progress.reset();
    return status == kSuccess ? std::optional(seconds) : std::nullopt;
}

bool measureOneWay(bus::Client& client, Stream& stream, BareRelay& relay,
                   const BenchOptions& options) {
    if (!run(client, stream)) return false;
    return printTimes(kOneWayText, stream.microseconds, bareMicroseconds(relay, options, 1),
                      options);
}

bool measureStream(bus::Client& client, Stream& stream, BareRelay& relay,
                   const BenchOptions& options) {
    const auto seconds = run(client, stream);
    if (!seconds) return false;
    const auto count = static_cast<double>(options.messages);
    const double rate = count / *seconds;
    const auto begin = Clock::now();
    const bool isCarried = relay.carry(options.messages * options.bytes);
    const double bare = count / secondsSince(begin);
    if (options.connection.json) {
        bus::printLine(fmt::format(
            R"({{"stream":{},"seconds":{:.3f},"per_second":{:.0f},"bare_per_second":{}}})",
            options.messages, *seconds, rate, isCarried ? fmt::format("{:.0f}", bare) : "null"));
        return true;
    }
    bus::printLine(fmt::format(
        "{} messages of {} bytes streamed in {:.3f} s: {:.0f} a second{}", options.messages,
        options.bytes, *seconds, rate,
        isCarried ? fmt::format(" (bare relay: {:.0f}, ratio {:.2f})", bare, rate / bare) : ""));
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
    const std::string waySubject = benchSubject("WAY");
    const std::string streamSubject = benchSubject("STREAM");
    const std::unique_ptr<RvSender> requests(client.session().newSender(echoSubject.c_str()));
    const std::unique_ptr<RvSender> oneWay(client.session().newSender(waySubject.c_str()));
    const std::unique_ptr<RvSender> sender(client.session().newSender(streamSubject.c_str()));
    Echo echo;
    Stream way(client, *oneWay, datum, options.requests, 1);
    Stream stream(client, *sender, datum, options.messages, Window(datum.size()).messages());
    BareRelay relay;
    client.leaveWithoutDaemon();
    const bool listens = client.net().RRNAddExService(echoSubject.c_str(), &echo) == kOk &&
                         client.net().RRNAddExService(waySubject.c_str(), &way) == kOk &&
                         client.net().RRNAddExService(streamSubject.c_str(), &stream) == kOk;
    if (listens && measureRoundTrips(client, *requests, datum, relay, options) &&
        measureOneWay(client, way, relay, options) &&
        measureStream(client, stream, relay, options)) {
        return kSuccess;
    }
    if (!bus::outputHasFailed()) {
        bus::complain(
            fmt::format("the bus daemon at {} does not carry the messages", client.daemon()));
    }
    return kFailure;
}

}  // namespace kvx::tool
