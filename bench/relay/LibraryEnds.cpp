// Sessions of the client library on one event manager. For a stream they have the property that
// batches outgoing messages, and are flushed after 64 KiB; single messages are sent at once.

#include <algorithm>
#include <cstring>

#include "bench/relay/Ends.h"
#include "rv/session/rv_Session.h"

namespace kvx::bench {
namespace {

constexpr std::size_t kFlushedBytes = 64 * 1024;
constexpr unsigned long kPatienceMs = 60'000;

class LibraryEnds : public Ends {
  public:
    explicit LibraryEnds(const Setup& setup) : Ends(setup, true), payload_(setup.size) {
        require(rvevm_Create(&manager_) == 0, "make an event manager");
        connections_.reserve(setup.listens.size());
        for (const Subjects& subjects : setup.listens) connect(subjects);
    }
    ~LibraryEnds() override {
        for (const Connection& connection : connections_) rv_Close(connection.session);
        rvevm_Destroy(manager_);
    }
    LibraryEnds(const LibraryEnds&) = delete;
    LibraryEnds& operator=(const LibraryEnds&) = delete;

    void send(std::size_t connection, Stamp stamp) override {
        batch(connection, false);
        publish(connection, stamp);
    }

    void stream(std::size_t connection, std::uint32_t first, std::size_t count) override {
        batch(connection, true);
        Stamp stamp{sender(connection), first, 0};
        const std::size_t some = std::max<std::size_t>(1, kFlushedBytes / setup().size);
        for (std::size_t sent = 1; sent <= count; ++sent, ++stamp.number) {
            publish(connection, stamp);
            if (sent % some == 0 || sent == count) flush(connection);
        }
    }

  protected:
    void run() override { rvevm_MainLoop(manager_); }
    void stop() override { rvevm_Stop(manager_); }

  private:
    struct Connection {
        LibraryEnds* ends;
        std::size_t number;
        rv_Session session;
        std::size_t target;
        bool isReady;
        bool isBatching;
    };

    void connect(const Subjects& subjects) {
        connections_.push_back({this, connections_.size(), nullptr, 0, false, false});
        Connection& made = connections_.back();
        const std::string daemon = "tcp:127.0.0.1:" + std::to_string(setup().port);
        require(rv_CreateSession(&made.session, manager_, "bench", "", daemon.c_str()) == 0,
                "connect");
        if (subjects.empty()) return;
        for (const std::string& subject : subjects) listen(made, subject);
        // Comes back once the listens are in force.
        const std::string own = newSubject();
        listen(made, own);
        require(rv_Send(made.session, own.c_str(), nullptr, RVMSG_OPAQUE, 1, "!") == 0, "send");
        rvevm_MainLoop(manager_);
        made.isReady = true;
    }

    static void listen(Connection& on, const std::string& subject) {
        rv_Listener listener = nullptr;
        require(rv_Listen(on.session, &listener, subject.c_str(), onMessage, &on) == 0, "listen");
    }

    std::uint32_t sender(std::size_t connection) const {
        return static_cast<std::uint32_t>(setup().firstSender + connection);
    }
    void publish(std::size_t connection, const Stamp& stamp) {
        Connection& from = connections_[connection];
        std::memcpy(payload_.data(), &stamp, sizeof stamp);
        const std::string& subject = setup().targets[from.target];
        if (++from.target == setup().targets.size()) from.target = 0;
        require(rv_Send(from.session, subject.c_str(), nullptr, RVMSG_OPAQUE,
                        static_cast<rvmsg_Size>(payload_.size()), payload_.data()) == 0,
                "send");
    }
    void flush(std::size_t connection) {
        require(rv_Flush(connections_[connection].session, kPatienceMs) == 0, "flush");
    }
    void batch(std::size_t connection, bool isOn) {
        Connection& to = connections_[connection];
        if (to.isBatching == isOn) return;
        // Segments, and so sends, as large as the blocks of the bare senders.
        const ipq_Properties properties{isOn ? 1 : 0, 4096, 65'536};
        require(rv_SetProperty(to.session, "ipqProperties", &properties) == 0,
                "set the properties");
        to.isBatching = isOn;
    }

    static void onMessage(rv_Session, const char*, const char*, rvmsg_Type, rvmsg_Size size,
                          rvmsg_Data data, void* closure) {
        const auto& to = *static_cast<Connection*>(closure);
        LibraryEnds& ends = *to.ends;
        if (!to.isReady) return ends.stop();
        if (size != ends.setup().size) fail("a message of another size");
        ends.heard(to.number, static_cast<const std::uint8_t*>(data));
    }

    rvevm_Manager manager_ = nullptr;
    std::vector<Connection> connections_;
    std::vector<std::uint8_t> payload_;
};

}  // namespace

std::unique_ptr<Ends> connectLibrary(const Setup& setup) {
    return std::make_unique<LibraryEnds>(setup);
}

}  // namespace kvx::bench
