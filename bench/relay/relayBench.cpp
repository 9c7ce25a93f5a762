// bench_relay: the cost of a message through rvd, against a relay that only copies.
//
// Both brokers run as separate processes on the loopback. Two connections, one thread each, on the
// raw wire: messages of exactly 128 bytes, built once, the same bytes for both brokers. Through the
// relay the two connections are a pair; through rvd they are sessions of one space that listen to
// one subject each.
//
//   latency     one request at a time, answered by the other thread; p50 and p99 of the round trip
//   throughput  messages sent in blocks of 7,168 bytes, as the client library sends; from the first
//               send to the last message received, every one counted; nothing may be lost
//
// The third contestant is rvd between two sessions of the client library, with batching on for the
// stream: it includes encoding, loop, validation and delivery.
//
// The contestants run in turn in every round, under the same state of the machine. A figure is the
// median over the rounds, a ratio the median of the rounds' ratios.

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/relay/Broker.h"
#include "bench/relay/Figures.h"
#include "bench/relay/LibraryEnds.h"
#include "platform/Socket.h"
#include "rv/message/rvSubject.h"
#include "rv/wire/ControlMessage.h"
#include "rv/wire/FrameReader.h"
#include "rv/wire/Negotiation.h"

namespace kvx::bench {
namespace {

using Clock = std::chrono::steady_clock;
using Message = std::vector<std::uint8_t>;

constexpr std::size_t kMessageSize = 128;              // bytes
constexpr std::size_t kBlock = 7168;                   // bytes of one send
constexpr std::size_t kBatch = kBlock / kMessageSize;  // messages
constexpr std::size_t kReadBuffer = 256 * 1024;        // bytes
constexpr int kWarmUp = 200;                           // requests before the first measured one

Message encodedSubject(const char* text) {
    Message bytes(wire::kSubjectCapacity);
    bytes.resize(
        static_cast<std::size_t>(rvSubject_FromText(bytes.data(), wire::kSubjectCapacity, text)));
    return bytes;
}

Message dataMessage(const char* subject, const Message& payload) {
    const Message encoded = encodedSubject(subject);
    const auto size = static_cast<rvmsg_Size>(payload.size());
    const auto built = wire::buildData(encoded, nullptr, 0, {RVMSG_OPAQUE, size, payload.data()});
    const wire::Bytes bytes = built.message.view();
    return {bytes.begin(), bytes.end()};
}

// A payload for a data message on `subject` of exactly kMessageSize bytes.
Message payloadFor(const char* subject) {
    Message payload;
    while (payload.size() < kMessageSize) {
        payload.push_back(0x5A);
        if (dataMessage(subject, payload).size() == kMessageSize) return payload;
    }
    throw std::runtime_error("no message of that size");
}

Message dataMessage(const char* subject) {
    return dataMessage(subject, payloadFor(subject));
}

class Link {
  public:
    explicit Link(std::uint16_t port) : buffer_(kReadBuffer) {
        int error = 0;
        socket_ = platform::createTcpSocket(error);
        platform::setNoDelay(socket_.get(), true);
        if (platform::connectSocket(socket_.get(), {platform::kLoopbackAddress, port}) != 0) {
            throw std::runtime_error("cannot connect");
        }
    }

    // Opens a session that listens to `subject`.
    void announce(const char* subject) {
        wire::GreetingBytes greeting{};
        receive(greeting.data(), greeting.size());
        send(wire::encode(wire::Greeting{0, wire::kProtocolV4, 1}));
        send(wire::encode(wire::clientStep(readBlock()).block));
        (void)readBlock();
        send(wire::buildInit({"bench", nullptr, "bench", "", nullptr, {}}).message.view());
        Message reply(kvx::kHeaderBytes);
        receive(reply.data(), reply.size());
        reply.resize(loadBig32(reply.data()));
        receive(reply.data() + kvx::kHeaderBytes, reply.size() - kvx::kHeaderBytes);
        send(wire::buildInit({"bench", "BENCH.1", "bench", "", nullptr, {}}).message.view());
        send(wire::buildListen(encodedSubject(subject), nullptr, 0).message.view());
        const Message echo = dataMessage(subject);  // returned once the listen is in force
        send(echo);
        Message back(kMessageSize);
        receive(back.data(), back.size());
    }

    void send(wire::Bytes bytes) {
        while (!bytes.empty()) {
            const auto sent = platform::sendSome(socket_.get(), std::as_bytes(bytes));
            if (sent.error != 0) throw std::runtime_error("cannot send");
            bytes = bytes.subspan(sent.bytes);
        }
    }

    void receive(std::uint8_t* to, std::size_t count) {
        while (count > 0) {
            const auto got =
                platform::receiveSome(socket_.get(), {reinterpret_cast<std::byte*>(to), count});
            if (got.bytes == 0) throw std::runtime_error("the broker has closed");
            to += got.bytes;
            count -= got.bytes;
        }
    }

    // Reads and counts messages; throws at one of another size.
    void expectMessages(std::size_t count) {
        while (count > 0) {
            const auto got = platform::receiveSome(
                socket_.get(), {reinterpret_cast<std::byte*>(buffer_.data()), buffer_.size()});
            if (got.bytes == 0) throw std::runtime_error("the broker has closed");
            reader_.feed({buffer_.data(), got.bytes});
            for (auto frame = reader_.next(); frame.kind != wire::FrameKind::None;
                 frame = reader_.next()) {
                if (frame.bytes.size() != kMessageSize)
                    throw std::runtime_error("a message was lost");
                --count;
            }
        }
    }

  private:
    wire::ParameterBlock readBlock() {
        wire::ParameterBytes block{};
        receive(block.data(), block.size());
        return wire::decodeParameters(block);
    }

    platform::Socket socket_;
    Message buffer_;
    wire::FrameReader reader_;
};

// Two connected ends, through rvd as sessions and through the relay as a pair.
struct Pair {
    Pair(std::uint16_t port, bool sessions) : left(port), right(port) {
        if (!sessions) return;
        left.announce("BENCH.LEFT");
        right.announce("BENCH.RIGHT");
    }
    Link left;
    Link right;
    const Message toRight = dataMessage("BENCH.RIGHT");
    const Message toLeft = dataMessage("BENCH.LEFT");
};

void measureLatency(Pair& pair, int requests, Figures& figures) {
    std::thread responder([&pair, requests] {
        Message request(kMessageSize);
        for (int i = 0; i < requests + kWarmUp; ++i) {
            pair.right.receive(request.data(), request.size());
            pair.right.send(pair.toLeft);
        }
    });
    std::vector<double> times;
    Message reply(kMessageSize);
    for (int i = 0; i < requests + kWarmUp; ++i) {
        const auto start = Clock::now();
        pair.left.send(pair.toRight);
        pair.left.receive(reply.data(), reply.size());
        const std::chrono::duration<double, std::micro> time = Clock::now() - start;
        if (i >= kWarmUp) times.push_back(time.count());
    }
    responder.join();
    setLatencies(figures, std::move(times));
}

void measureThroughput(Pair& pair, std::size_t messages, Figures& figures) {
    Message block;
    for (std::size_t i = 0; i < kBatch; ++i) {
        block.insert(block.end(), pair.toRight.begin(), pair.toRight.end());
    }
    const std::size_t blocks = messages / kBatch;
    const auto start = Clock::now();
    std::thread sender([&pair, &block, blocks] {
        for (std::size_t i = 0; i < blocks; ++i) pair.left.send(block);
    });
    pair.right.expectMessages(blocks * kBatch);
    const std::chrono::duration<double> time = Clock::now() - start;
    sender.join();
    figures.throughput = static_cast<double>(blocks * kBatch) / time.count();
}

Figures measure(std::uint16_t port, bool sessions, int requests, std::size_t messages) {
    Figures figures;
    Pair pair(port, sessions);
    measureLatency(pair, requests, figures);
    measureThroughput(pair, messages, figures);
    return figures;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// The relay first: it is the baseline of the others.
using Round = std::array<Figures, 3>;

class Report {
  public:
    void add(const Round& round) { rounds_.push_back(round); }

    void print() const {
        std::printf("%-32s %11s %11s %11s %9s %9s\n", "128-byte messages", "relay", "rvd",
                    "rvd+library", "rvd/r.", "library/r.");
        line("request/reply p50, microseconds", &Figures::p50);
        line("request/reply p99, microseconds", &Figures::p99);
        line("one-to-one stream, messages/s", &Figures::throughput);
    }

  private:
    void line(const char* name, double Figures::*figure) const {
        std::printf("%-32s", name);
        for (std::size_t who = 0; who < 3; ++who) {
            std::printf(" %11.1f",
                        medianOf([&](const Round& round) { return round[who].*figure; }));
        }
        for (std::size_t who = 1; who < 3; ++who) {
            std::printf(" %9.2f", medianOf([&](const Round& round) {
                            return round[who].*figure / (round[0].*figure);
                        }));
        }
        std::printf("\n");
    }

    template <class Value>
    double medianOf(Value&& value) const {
        std::vector<double> values;
        for (const Round& round : rounds_) values.push_back(value(round));
        return median(std::move(values));
    }

    std::vector<Round> rounds_;
};

}  // namespace
}  // namespace kvx::bench

// bench_relay [rounds [requests [messages]]]
int main(int argc, char** argv) {
    const auto argument = [argc, argv](int i, long otherwise) {
        return argc > i ? std::strtol(argv[i], nullptr, 10) : otherwise;
    };
    const long rounds = argument(1, 11);
    const auto requests = static_cast<int>(argument(2, 5'000));
    const auto messages = static_cast<std::size_t>(argument(3, 1'000'000));
    std::printf(
        "# %ld rounds, contestants in turn; each round %d request/reply pairs one at a time,\n"
        "# then %zu messages in blocks of %zu bytes; two threads, two connections, loopback\n"
        "# figures: median over the rounds; ratios: median of the rounds' ratios\n",
        rounds, requests, messages, kvx::bench::kBlock);
    try {
        const kvx::bench::Broker relay(KVX_RELAY_PROGRAM);
        const kvx::bench::Broker rvd(KVX_RVD_PROGRAM " -q -listen tcp:0");
        kvx::bench::Report report;
        for (long i = 0; i < rounds; ++i) {
            report.add(
                {kvx::bench::measure(relay.port(), false, requests, messages),
                 kvx::bench::measure(rvd.port(), true, requests, messages),
                 kvx::bench::measureThroughLibrary(
                     rvd.port(), kvx::bench::payloadFor("BENCH.RIGHT"), requests, messages)});
        }
        report.print();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_relay: %s\n", error.what());
        return 1;
    }
    return 0;
}
