// kvx bench: this process talks to itself through the daemon, over one session. The figures hold
// the daemon, the link both ways and this process's own work.

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "tools/bus/Client.h"
#include "tools/bus/Complain.h"
#include "tools/kvx/Commands.h"

namespace kvx::tool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint64_t kWindow = 500;  // messages on their way at one time
constexpr int kIdleMs = 10000;

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

// One round trip after the other; every answer starts the next request.
class RoundTrips : public RvDataCallback {
  public:
    RoundTrips(bus::Client& client, RvSender& sender, const RvDatum& datum, std::uint64_t count)
        : client_(client), sender_(sender), datum_(datum), left_(count) {}

    void next() {
        begin_ = Clock::now();
        listener_.reset(sender_.sendRequest(datum_, kIdleMs, this, nullptr));
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

// A window of messages under way: half of it heard again, half of it sent anew.
class Stream : public RvDataCallback {
  public:
    Stream(bus::Client& client, RvSender& sender, const RvDatum& datum, std::uint64_t count)
        : client_(client), sender_(sender), datum_(datum), count_(count) {}

    void fill() {
        while (sent_ < count_ && sent_ - heard_ < kWindow) {
            if (!(sender_.send(datum_) == RvStatus(0))) return client_.leave(kFailure);
            ++sent_;
        }
    }

    void onData(const char*, RvSender*, const RvDatum&, RvListener*) override {
        if (++heard_ == count_) return client_.leave(kSuccess);
        if (sent_ - heard_ <= kWindow / 2) fill();
    }

  private:
    bus::Client& client_;
    RvSender& sender_;
    const RvDatum& datum_;
    const std::uint64_t count_;
    std::uint64_t sent_ = 0;
    std::uint64_t heard_ = 0;
};

bool measureRoundTrips(bus::Client& client, RvSender& sender, const RvDatum& datum,
                       const BenchOptions& options) {
    RoundTrips trips(client, sender, datum, options.requests);
    if (client.run([&] { trips.next(); }) != kSuccess) return false;
    auto& times = trips.microseconds;
    std::sort(times.begin(), times.end());
    if (options.connection.json) {
        fmt::print("{{\"round_trips\":{},\"p50_us\":{:.1f},\"p99_us\":{:.1f},\"max_us\":{:.1f}}}\n",
                   times.size(), percentile(times, 0.5), percentile(times, 0.99), times.back());
    } else {
        fmt::print("{} round trips of {} bytes: p50 {:.1f} us, p99 {:.1f} us, max {:.1f} us\n",
                   times.size(), options.bytes, percentile(times, 0.5), percentile(times, 0.99),
                   times.back());
    }
    return true;
}

bool measureStream(bus::Client& client, Stream& stream, const BenchOptions& options) {
    const auto begin = Clock::now();
    if (client.run([&] { stream.fill(); }) != kSuccess) return false;
    const double seconds = secondsSince(begin);
    const double rate = static_cast<double>(options.messages) / seconds;
    if (options.connection.json) {
        fmt::print("{{\"stream\":{},\"seconds\":{:.3f},\"per_second\":{:.0f}}}\n", options.messages,
                   seconds, rate);
    } else {
        fmt::print("{} messages of {} bytes streamed in {:.3f} s: {:.0f} a second\n",
                   options.messages, options.bytes, seconds, rate);
    }
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
    client.net().RRNAddExService(echoSubject.c_str(), &echo);
    client.net().RRNAddExService(streamSubject.c_str(), &stream);
    if (!measureRoundTrips(client, *requests, datum, options) ||
        !measureStream(client, stream, options)) {
        bus::complain("the daemon does not carry the messages");
        return kFailure;
    }
    return kSuccess;
}

}  // namespace kvx::tool
