// One thread troubles the daemon on all its connections in turn: it offers each what comes next in
// the stream of its kind, as far as the socket takes it, and reads (or not) what has come.

#include "bench/hostile/Hostile.h"

#include <cstdio>
#include <functional>
#include <memory>

#include "tests/support/RawClient.h"

namespace kvx::bench {

namespace {

using test::ByteVector;
using test::RawClient;

constexpr std::size_t kPiece = 64 * 1024;
constexpr int kPatterns = 32'768;
constexpr std::size_t kGiant = std::size_t{31} << 20U;

void add(ByteVector& stream, const wire::Built& built) {
    const wire::Bytes bytes = built.message.view();
    stream.insert(stream.end(), bytes.begin(), bytes.end());
}

void addListen(ByteVector& stream, const std::string& subject) {
    add(stream, wire::buildListen(test::encodedSubject(subject), nullptr, 0));
}

void addData(ByteVector& stream, const std::string& subject, std::size_t size) {
    const std::string text(size, 'x');
    add(stream, wire::buildData(test::encodedSubject(subject), nullptr, 0,
                                {RVMSG_STRING, 0, text.c_str()}));
}

// What one connection sends: `begin` once, then `again` for ever.
struct Script {
    ByteVector begin;
    ByteVector again;
    bool reads = true;
    std::size_t atOnce = kPiece;  // bytes offered to the socket
    bool hangsUp = false;         // after `begin`, without a goodbye, and comes again
};

std::string numbered(const char* text, int i) {
    return text + std::to_string(i);
}

Script listensAndCancels() {
    Script script;
    for (int i = 0; i < 1000; ++i) {
        addListen(script.again, numbered("HOSTILE.A.B.C.", i));
        add(script.again,
            wire::buildCancel(test::encodedSubject(numbered("HOSTILE.A.B.C.", i)), 0));
    }
    return script;
}

Script manyPatterns() {
    Script script;
    for (int i = 0; i < kPatterns; ++i) addListen(script.begin, numbered("*.*.*.H", i) + ".>");
    addData(script.again, ">", 10);
    return script;
}

Script branching() {
    Script script;
    for (int i = 0; i < 4096; ++i) {
        std::string pattern;
        for (int bit = 0; bit < 12; ++bit) pattern += (i >> bit & 1) != 0 ? "*." : "a.";
        addListen(script.begin, pattern + "z");
    }
    addData(script.again, "a.a.a.a.a.a.a.a.a.a.a.a.y", 10);
    return script;
}

Script floods(bool reads) {
    Script script;
    script.reads = reads;
    addListen(script.begin, ">");
    for (int i = 0; i < 100; ++i) addData(script.again, "HOSTILE.FLOOD", 20);
    return script;
}

Script giants() {
    Script script;
    addListen(script.begin, "HOSTILE.GIANT");
    addData(script.again, "HOSTILE.GIANT", kGiant);
    return script;
}

Script unfinished() {
    Script script;
    addData(script.begin, "HOSTILE.UNFINISHED", kGiant);
    script.begin.resize(script.begin.size() - 1);
    return script;
}

Script byteByByte() {
    Script script = floods(true);
    script.atOnce = 1;
    return script;
}

Script introducesItself() {
    Script script;
    add(script.again, wire::buildInit({"h", nullptr, "", "", nullptr, {}}));
    return script;
}

Script noise() {
    Script script;
    script.begin.assign(1000, 0x5A);
    script.hangsUp = true;
    return script;
}

Script comesAndGoes() {
    Script script;
    for (int i = 0; i < 2000; ++i) addListen(script.begin, numbered("HOSTILE.GONE.", i));
    script.hangsUp = true;
    return script;
}

struct Kind {
    Trouble trouble;
    Script (*script)();
};

const std::vector<Kind>& kinds() {
    static const std::vector<Kind> all = {
        {{"cancels", "listens and cancels in a loop"}, listensAndCancels},
        {{"patterns", "32,768 wildcard listens, and messages on >"}, manyPatterns},
        {{"branching", "patterns that share every prefix, and messages that fit all but the end"},
         branching},
        {{"floods", "messages to all who listen to everything, itself too"},
         [] { return floods(true); }},
        {{"deaf", "the same, and reads nothing"}, [] { return floods(false); }},
        {{"giants", "messages of 31 MiB to itself"}, giants},
        {{"unfinished", "a message of 31 MiB but for its last byte"}, unfinished},
        {{"drips", "messages one byte at a time"}, byteByByte},
        {{"inits", "introduces itself again and again"}, introducesItself},
        {{"noise", "a session, then noise, again and again"}, noise},
        {{"goes", "2,000 listens, a hang-up, again and again"}, comesAndGoes},
    };
    return all;
}

class Client {
  public:
    Client(const Script& script, std::uint16_t port) : script_(script), port_(port) { come(); }

    // Offers bytes once. False when the socket takes none now.
    bool step() {
        if (script_.reads) drain();
        const bool isBeginning = begun_ < script_.begin.size();
        const ByteVector& stream = isBeginning ? script_.begin : script_.again;
        std::size_t& place = isBeginning ? begun_ : sent_;
        if (stream.empty()) return false;
        if (place == stream.size()) place = 0;
        const std::size_t size = std::min(script_.atOnce, stream.size() - place);
        const auto bytes = std::as_bytes(std::span(stream).subspan(place, size));
        const auto result = platform::sendSome(client_->socket(), bytes);
        place += result.bytes;
        const bool isLost =
            result.error != 0 && result.error != platform::socket_error::kWouldBlock;
        if (isLost || (script_.hangsUp && begun_ == script_.begin.size())) come();
        return result.bytes > 0;
    }

  private:
    void come() {
        client_.reset();
        client_ = std::make_unique<RawClient>(RawClient::session(port_));
        platform::setNonBlocking(client_->socket(), true);
        begun_ = 0;
        sent_ = 0;
    }
    void drain() {
        static std::vector<std::byte> room(kPiece * 4);
        for (int i = 0; i < 8; ++i) {
            const auto result = platform::receiveSome(client_->socket(), room);
            if (result.bytes < room.size()) return;
        }
    }

    const Script& script_;
    const std::uint16_t port_;
    std::unique_ptr<RawClient> client_;
    std::size_t begun_ = 0;
    std::size_t sent_ = 0;
};

}  // namespace

const std::vector<Trouble>& troubles() {
    static const std::vector<Trouble> all = [] {
        std::vector<Trouble> some;
        for (const Kind& kind : kinds()) some.push_back(kind.trouble);
        return some;
    }();
    return all;
}

int makeTrouble(const std::string& name, int clients, std::uint16_t port) {
    for (const Kind& kind : kinds()) {
        if (kind.trouble.name != name) continue;
        const Script script = kind.script();
        std::vector<Client> all;
        for (int i = 0; i < clients; ++i) all.emplace_back(script, port);
        std::puts("troubling");
        std::fflush(stdout);
        while (true) {
            bool isBusy = false;
            for (Client& client : all) isBusy = client.step() || isBusy;
            if (!isBusy) platform::sleepMs(1);
        }
    }
    return 2;
}

}  // namespace kvx::bench
