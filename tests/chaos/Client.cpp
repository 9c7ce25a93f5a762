// The programs that suffer: chaos_client BOARD PORT NUMBER, a peer, or the service by its number.
//
// A peer publishes numbered messages, hears those of all peers, and checks what it hears: from each
// stream a rising sequence, and no more of it missing than it was told of, as long as its own
// connection lasts. A stream is what one peer sends between two failures of its connection; the end
// of one may be lost, and may be overtaken by the next one, which comes by another connection.
// In a calm every peer calls again and again, and answers who calls.

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <map>
#include <memory>
#include <random>
#include <tuple>

#include "kvx/Service.h"
#include "mom/engine/CVekEngine.h"
#include "platform/Signals.h"
#include "rv/message/rvmsg.h"
#include "rv/object/RvListener.h"
#include "rv/object/RvSender.h"
#include "rv/object/RvSession.h"
#include "rv/object/RvTimer.h"
#include "rv/session/rvSessionHooks.h"
#include "tests/chaos/Board.h"
#include "tests/support/Callbacks.h"

namespace kvx::chaos {
namespace {

constexpr unsigned long kTickMs = 5;
constexpr int kTicksPerCall = 4;  // in a calm
constexpr std::size_t kFloodSize = 4'000;

Board::Peer* self = nullptr;  // on the board

bool readClock(platform::Milliseconds& now) {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    now = std::int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1'000'000 + self->ahead.load();
    return true;
}

// What both programs begin with. A signal, which only wakes, tells of a step of the clock.
void begin(Board::Peer& slot) {
    self = &slot;
    platform::setMonotonicReaderForTests(readClock);
    static_cast<void>(platform::installSignalHandler(SIGWINCH, [](int) {}));
}

int noteLoss(rv_Session, const void*, void*) {
    self->isConnected = false;
    self->isCutOff = true;
    ++self->losses;
    return 0;
}

void watchConnection(rv_Session session) {
    self->isConnected = true;
    const auto back = [](rv_Session, const void*, void*) {
        self->isConnected = true;
        self->isCutOff = false;
        return 0;
    };
    rv_AddHook(session, RV_HOOK_DISCONNECT, noteLoss, nullptr);
    rv_AddHook(session, RV_HOOK_RECONNECT, back, nullptr);
}

class Peer {
  public:
    Peer(Board& board, int number, const std::string& daemon)
        : board_(board),
          number_(number),
          incarnation_(self->incarnation),
          random_(static_cast<unsigned>(number * 1000 + incarnation_)),
          session_(opened(daemon)) {
        const std::string subject = "CHAOS." + std::to_string(number);
        inbox_.reset(session_.newInbox(&replied_, nullptr));
        everything_.reset(session_.newListener("CHAOS.>", &heard_, nullptr));
        losses_.reset(session_.newListener("_RV.WARN.SYSTEM.DATALOSS", &told_, nullptr));
        for (const char* end : {".A", ".B.C"})
            senders_.emplace_back(session_.newSender((subject + end).c_str(), inbox_->subject()));
        tick_.reset(session_.newTimer(kTickMs, rv_TRUE, &ticked_, nullptr));
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    void run() { rvevm_MainLoop(manager_.handle); }

  private:
    struct Manager {
        Manager() { rvevm_Create(&handle); }
        ~Manager() { rvevm_Destroy(handle); }
        Manager(const Manager&) = delete;
        Manager& operator=(const Manager&) = delete;
        rvevm_Manager handle = nullptr;
    };
    struct Heard {
        unsigned long long number = 0;
        int link = 0;  // of this peer, on which it was heard
    };

    static int onDisconnect(rv_Session, const void*, void* closure) {
        Peer& peer = *static_cast<Peer*>(closure);
        ++peer.stream_;
        ++peer.link_;
        peer.missedOnLink_ = peer.toldOnLink_ = 0;
        return 0;
    }

    rv_Session opened(const std::string& daemon) {
        rv_Session made = nullptr;
        while (rv_CreateSession(&made, manager_.handle, "", "", daemon.c_str()) != 0) {
        }
        watchConnection(made);
        rv_AddHook(made, RV_HOOK_DISCONNECT, onDisconnect, this);
        return made;
    }

    void onTick() {
        if (board_.isOver) return void(rvevm_Stop(manager_.handle));
        if (board_.calm != 0) {
            if (++ticks_ % kTicksPerCall == 0) publish(100);
            return;
        }
        for (int left = self->flood.exchange(0); left > 0; --left) publish(kFloodSize);
        if (random_() % 2 == 0) publish(random_() % (random_() % 10 == 0 ? 8'000 : 300));
    }

    void publish(std::size_t size) {
        std::string text = std::to_string(number_) + ' ' + std::to_string(incarnation_) + ' ' +
                           std::to_string(stream_) + ' ' + std::to_string(++sent_) + ' ' +
                           std::to_string(board_.calm) + ' ';
        text.append(size, '.');
        RvSender& sender = *senders_[sent_ % senders_.size()];
        if (!(sender.send(RvDatum(RVMSG_STRING, 0, text.c_str())) == 0)) ++stream_;
    }

    void hear(RvSender* replyTo, const RvDatum& data) {
        int from = 0;
        int incarnation = 0;
        int stream = 0;
        int calm = 0;
        Heard now{0, link_};
        const auto* const text = static_cast<const char*>(data.data());
        if (data.type() != RVMSG_STRING ||
            std::sscanf(text, "%d %d %d %llu %d", &from, &incarnation, &stream, &now.number,
                        &calm) != 5 ||
            from < 0 || from >= kPeers)
            return fail("heard what nobody sent");
        ++self->messages;
        Heard& last = last_[{from, incarnation, stream}];
        if (now.number <= last.number)
            fail("heard " + std::string(text, strcspn(text, ".")) + "after " +
                 std::to_string(last.number) +
                 (last.link == link_ ? " on one link" : " on another link"));
        if (last.link == link_) miss(now.number - last.number - 1);
        last = now;
        if (calm == 0 || calm != board_.calm) return;
        self->heard.at(from) = calm;
        const std::string reply = std::to_string(number_) + ' ' + std::to_string(calm);
        if (replyTo != nullptr) replyTo->send(RvDatum(RVMSG_STRING, 0, reply.c_str()));
    }

    void miss(unsigned long long messages) {
        missedOnLink_ += messages;
        self->missed += messages;
        if (missedOnLink_ > toldOnLink_)
            fail("misses " + std::to_string(missedOnLink_) + ", was told of " +
                 std::to_string(toldOnLink_));
    }

    void hearLoss(const RvDatum& data) {
        std::array<double, 2> scratch{};
        rvmsg_Data value = nullptr;
        if (data.type() != RVMSG_MSG ||
            rvmsg_Get(scratch.data(), data.data(), "lost", nullptr, nullptr, &value) != 0)
            return fail("heard a notice of loss without its number");
        const std::uint32_t lost = *static_cast<const std::uint32_t*>(value);
        toldOnLink_ += lost;
        self->told += lost;
    }

    void hearReply(const RvDatum& data) {
        int from = 0;
        int calm = 0;
        if (std::sscanf(static_cast<const char*>(data.data()), "%d %d", &from, &calm) == 2)
            self->replied.at(from) = calm;
    }

    void fail(const std::string& what) {
        board_.fail("peer " + std::to_string(number_) + " (" + std::to_string(incarnation_) +
                    "): " + what);
    }

    Board& board_;
    const int number_;
    const int incarnation_;
    std::minstd_rand random_;
    Manager manager_;
    int stream_ = 0;
    int link_ = 1;
    unsigned long long sent_ = 0;
    unsigned long long missedOnLink_ = 0;
    unsigned long long toldOnLink_ = 0;
    int ticks_ = 0;
    std::map<std::tuple<int, int, int>, Heard> last_;  // by sender, incarnation and stream

    test::OnTimer ticked_{[this](RvTimer*) { onTick(); }};
    test::OnData heard_{[this](const char*, RvSender* replyTo, const RvDatum& data, RvListener*) {
        hear(replyTo, data);
    }};
    test::OnData told_{
        [this](const char*, RvSender*, const RvDatum& data, RvListener*) { hearLoss(data); }};
    test::OnData replied_{
        [this](const char*, RvSender*, const RvDatum& data, RvListener*) { hearReply(data); }};
    RvSession session_;
    std::unique_ptr<RvListener> inbox_, everything_, losses_;
    std::vector<std::unique_ptr<RvSender>> senders_;
    std::unique_ptr<RvTimer> tick_;
};

int serve(const std::string& daemon) {
    while (true) {
        auto service = Service::open("Chaos", {.daemon = {.daemon = daemon}});
        if (!service) continue;
        watchConnection(service->engine().m_session->handle());
        service->onQuery([](const Question& question, Reply& reply) {
            const std::string padding(50, 'x');
            for (int row = 0; row < std::atoi(question.text.c_str()); ++row)
                reply.row({{"row", row}, {"padding", padding}});
        });
        return service->run();
    }
}

}  // namespace
}  // namespace kvx::chaos

int main(int argc, char** argv) {
    using namespace kvx::chaos;
    if (argc < 4) return 2;
    const SharedBoard board(argv[1]);
    const std::string daemon = std::string("tcp:127.0.0.1:") + argv[2];
    const int number = std::atoi(argv[3]);
    begin(board->peers.at(number));
    if (number == kService) return serve(daemon);
    Peer(*board, number, daemon).run();
    return 0;
}
