#include "bench/relay/LibraryEnds.h"

#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

#include "rv/session/rv_Session.h"

namespace kvx::bench {
namespace {

using Clock = std::chrono::steady_clock;
using Payload = std::vector<std::uint8_t>;

constexpr std::size_t kSendsAFlush = 500;
constexpr unsigned long kPatienceMs = 60'000;
constexpr int kWarmUp = 200;  // round trips before the first measured one

void require(int code, const char* what) {
    if (code != 0) throw std::runtime_error(std::string("cannot ") + what);
}

// One session with its loop. An end sends requests until the other answers, to know that it
// listens.
class End {
  public:
    End(std::uint16_t port, bool batching, const char* subject, const char* peer,
        const Payload& payload)
        : peer_(peer), payload_(payload) {
        require(rvevm_Create(&manager_), "make an event manager");
        const std::string daemon = "tcp:127.0.0.1:" + std::to_string(port);
        require(rv_CreateSession(&session_, manager_, "library", "", daemon.c_str()), "connect");
        const ipq_Properties properties{batching ? 1 : 0, 65536, 8192};
        require(rv_SetProperty(session_, "ipqProperties", &properties), "set the properties");
        rv_Listener listener = nullptr;
        require(rv_Listen(session_, &listener, subject, onMessage, this), "listen");
        require(rv_Flush(session_, kPatienceMs), "flush");
    }
    virtual ~End() {
        rv_Close(session_);
        rvevm_Destroy(manager_);
    }
    End(const End&) = delete;
    End& operator=(const End&) = delete;

    void run() { rvevm_MainLoop(manager_); }
    void stop() { rvevm_Stop(manager_); }
    void flush() { require(rv_Flush(session_, kPatienceMs), "flush"); }
    void send() {
        require(rv_Send(session_, peer_, nullptr, RVMSG_OPAQUE,
                        static_cast<rvmsg_Size>(payload_.size()), payload_.data()),
                "send");
    }

  protected:
    virtual void heard() = 0;

  private:
    static void onMessage(rv_Session, const char*, const char*, rvmsg_Type, rvmsg_Size, rvmsg_Data,
                          void* end) {
        static_cast<End*>(end)->heard();
    }

    const char* peer_;
    const Payload& payload_;
    rvevm_Manager manager_ = nullptr;
    rv_Session session_ = nullptr;
};

// Answers every request.
class Responder : public End {
  public:
    using End::End;

  protected:
    void heard() override { send(); }
};

// Sends the next request with every answer.
class Requester : public End {
  public:
    using End::End;

    std::vector<double> ask(int requests) {
        left_ = requests + kWarmUp;
        next();
        run();
        times_.erase(times_.begin(), times_.begin() + kWarmUp);
        return times_;
    }

  protected:
    void heard() override {
        const std::chrono::duration<double, std::micro> time = Clock::now() - begin_;
        times_.push_back(time.count());
        if (--left_ == 0) return stop();
        next();
    }

  private:
    void next() {
        begin_ = Clock::now();
        send();
    }

    int left_ = 0;
    Clock::time_point begin_;
    std::vector<double> times_;
};

// Counts received messages.
class Counter : public End {
  public:
    using End::End;

    void expect(std::size_t messages) { left_ = messages; }

  protected:
    void heard() override {
        if (--left_ == 0) stop();
    }

  private:
    std::size_t left_ = 0;
};

class Silent : public End {
  public:
    using End::End;

  protected:
    void heard() override {}
};

void measureLatency(std::uint16_t port, const Payload& payload, int requests, Figures& figures) {
    Responder right(port, false, "BENCH.RIGHT", "BENCH.LEFT", payload);
    Requester left(port, false, "BENCH.LEFT", "BENCH.RIGHT", payload);
    std::thread thread([&right] { right.run(); });
    setLatencies(figures, left.ask(requests));
    right.stop();
    thread.join();
}

void measureStream(std::uint16_t port, const Payload& payload, std::size_t messages,
                   Figures& figures) {
    Counter right(port, false, "BENCH.COUNTER", "", payload);
    Silent left(port, true, "BENCH.SENDER", "BENCH.COUNTER", payload);
    right.expect(messages);
    const auto begin = Clock::now();
    std::thread thread([&left, messages] {
        for (std::size_t sent = 0; sent < messages; ++sent) {
            left.send();
            if (sent % kSendsAFlush == kSendsAFlush - 1) left.flush();
        }
        left.flush();
    });
    right.run();
    const std::chrono::duration<double> time = Clock::now() - begin;
    thread.join();
    figures.throughput = static_cast<double>(messages) / time.count();
}

}  // namespace

Figures measureThroughLibrary(std::uint16_t port, const Payload& payload, int requests,
                              std::size_t messages) {
    Figures figures;
    measureLatency(port, payload, requests, figures);
    measureStream(port, payload, messages, figures);
    return figures;
}

}  // namespace kvx::bench
