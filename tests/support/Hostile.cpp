// One thread troubles the daemon on all its connections in turn: it offers each what comes next in
// the stream of its kind, as far as the socket takes it, and reads (or not) what has come.

#include "tests/support/Hostile.h"

#include <sys/socket.h>

#include <algorithm>
#include <optional>
#include <stdexcept>

#include "tests/support/RawClient.h"

namespace kvx::test {

namespace {

constexpr std::size_t kPiece = 64 * 1024;
constexpr int kPatterns = 32'768;
constexpr std::size_t kGiant = std::size_t{31} << 20U;

void add(ByteVector& stream, const wire::Built& built) {
    const wire::Bytes bytes = built.message.view();
    stream.insert(stream.end(), bytes.begin(), bytes.end());
}

void addListen(ByteVector& stream, const std::string& subject) {
    add(stream, wire::buildListen(encodedSubject(subject), nullptr, 0));
}

void addData(ByteVector& stream, const std::string& subject, std::size_t size) {
    const std::string text(size, 'x');
    add(stream,
        wire::buildData(encodedSubject(subject), nullptr, 0, {RVMSG_STRING, 0, text.c_str()}));
}

// What one connection sends: `begin` once, then `again` for ever.
struct Script {
    ByteVector begin;
    ByteVector again;
    bool reads = true;
    std::size_t atOnce = kPiece;  // bytes offered to the socket
    bool hangsUp = false;         // after `begin`, without a goodbye, and comes again
    bool isRaw = false;           // does not wait for the handshake
    std::size_t resetsEvery = 0;  // a reset after a multiple of so many bytes of `begin`
};

std::string numbered(const char* text, int i) {
    return text + std::to_string(i);
}

Script listensAndCancels() {
    Script script;
    for (int i = 0; i < 1000; ++i) {
        addListen(script.again, numbered("HOSTILE.A.B.C.", i));
        add(script.again, wire::buildCancel(encodedSubject(numbered("HOSTILE.A.B.C.", i)), 0));
    }
    return script;
}

Script manyPatterns() {
    Script script;
    for (int i = 0; i < kPatterns; ++i)
        addListen(script.begin, numbered("HOSTILE.*.*.H", i) + ".>");
    addData(script.again, "HOSTILE.>", 10);
    return script;
}

Script branching() {
    Script script;
    script.atOnce = 4096;
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
    script.atOnce = kGiant;
    addListen(script.begin, "HOSTILE.GIANT");
    addData(script.again, "HOSTILE.GIANT", kGiant);
    return script;
}

Script unfinished() {
    Script script;
    script.atOnce = kGiant;
    addData(script.begin, "HOSTILE.UNFINISHED", kGiant);
    script.begin.resize(script.begin.size() - 1);
    return script;
}

Script byteByByte() {
    Script script = floods(true);
    script.atOnce = 1;
    return script;
}

template <class Bytes>
void addBytes(ByteVector& stream, const Bytes& bytes) {
    stream.insert(stream.end(), bytes.begin(), bytes.end());
}

// What a client sends from the first byte on, whatever the daemon says.
ByteVector opening() {
    ByteVector stream;
    addBytes(stream, wire::encode(wire::Greeting{0, wire::kProtocolV4, 1}));
    addBytes(stream, wire::encode(wire::clientStep(wire::daemonProposal()).block));
    for (const char* session : {static_cast<const char*>(nullptr), "HOSTILE"})
        add(stream, wire::buildInit({"h", session, "", "", nullptr, {}}));
    addListen(stream, "HOSTILE.>");
    addData(stream, "HOSTILE.OPENING", 100);
    return stream;
}

Script saysEverything() {
    Script script;
    const ByteVector subject = encodedSubject("HOSTILE.ANY");
    const ByteVector tooLong(200, 200);
    for (const char* space : {"", "elsewhere"})
        add(script.again, wire::buildInit({"h", "HOSTILE", space, space, nullptr, {}}));
    for (const ByteVector& some : {subject, tooLong}) {
        add(script.again, wire::buildListen(some, "HOSTILE.RETURN", 1));
        add(script.again, wire::buildCancel(some, 1));
        add(script.again, wire::buildCancel(some, 1));
    }
    add(script.again, wire::buildReply(1, 1));
    add(script.again, wire::buildErrorReply(17));
    addBytes(script.again, wire::kKeepaliveBlock);
    addData(script.again, "_RV.ERROR.SYSTEM.HOSTILE", 10);
    addData(script.again, "_INBOX.HOSTILE", 10);
    RvMsg odd;
    odd.append("mtype", "Z");
    addBytes(script.again, bytesOf(odd));
    return script;
}

Script saysGoodbye() {
    Script script;
    script.begin = opening();
    addBytes(script.begin, wire::kCloseBlock);
    addData(script.begin, "HOSTILE.LATE", 10);
    script.isRaw = script.hangsUp = true;
    return script;
}

Script resets() {
    Script script;
    script.begin = opening();
    script.isRaw = true;
    script.resetsEvery = 13;
    return script;
}

Script opensSlowly() {
    Script script = floods(true);
    script.begin = opening();
    script.isRaw = true;
    script.atOnce = 1;
    return script;
}

Script staysHalfOpen() {
    Script script;
    script.begin = opening();
    script.begin.resize(wire::kGreetingSize + 1);
    script.isRaw = true;
    return script;
}

Script introducesItself() {
    Script script;
    add(script.again, wire::buildInit({"h", nullptr, "", "", nullptr, {}}));
    return script;
}

Script noise() {
    Script script;
    addListen(script.begin, "HOSTILE.NOISE");
    addData(script.begin, "HOSTILE.NOISE", 100);
    script.begin.resize(script.begin.size() + 1000, 0x5A);
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
        {{"patterns", "32,768 wildcard listens, and messages that cover them all"}, manyPatterns},
        {{"branching", "patterns that share every prefix, and messages that fit all but the end"},
         branching},
        {{"floods", "messages to all who listen to everything, itself too"},
         [] { return floods(true); }},
        {{"deaf", "the same, and reads nothing"}, [] { return floods(false); }},
        {{"giants", "messages of 31 MiB to itself"}, giants},
        {{"unfinished", "a message of 31 MiB but for its last byte"}, unfinished},
        {{"drips", "messages one byte at a time"}, byteByByte},
        {{"inits", "introduces itself again and again"}, introducesItself},
        {{"controls", "every message of the link, sound and unsound"}, saysEverything},
        {{"goodbyes", "a session, a goodbye, and goes on talking"}, saysGoodbye},
        {{"resets", "a reset in every state of handshake and session"}, resets},
        {{"opens slowly", "handshake and session one byte at a time"}, opensSlowly},
        {{"half open", "a greeting, and nothing more"}, staysHalfOpen},
        {{"noise", "some sound messages, then noise, again and again"}, noise},
        {{"goes", "2,000 listens, a hang-up, again and again"}, comesAndGoes},
    };
    return all;
}

class Client {
  public:
    Client(const Script& script, std::uint16_t port, std::size_t number)
        : script_(script), port_(port), times_(number) {}

    // Offers bytes once. False when the socket takes none now.
    bool step() {
        if (!client_ && !come()) return false;
        if (script_.resetsEvery > 0 && begun_ == end_) return reset();
        if (script_.reads) drain();
        const bool isBeginning = begun_ < end_;
        const ByteVector& stream = isBeginning ? script_.begin : script_.again;
        std::size_t& place = isBeginning ? begun_ : sent_;
        if (stream.empty()) return false;
        if (place == stream.size()) place = 0;
        const std::size_t last = isBeginning ? end_ : stream.size();
        const std::size_t size = std::min(script_.atOnce, last - place);
        const auto bytes = std::as_bytes(std::span(stream).subspan(place, size));
        const auto result = platform::sendSome(client_->socket(), bytes);
        place += result.bytes;
        const bool isLost =
            result.error != 0 && result.error != platform::socket_error::kWouldBlock;
        if (isLost || (script_.hangsUp && begun_ == end_)) client_.reset();
        return result.bytes > 0;
    }

  private:
    // False when the daemon turns it away.
    bool come() {
        try {
            client_.emplace(script_.isRaw ? RawClient(port_) : RawClient::session(port_));
        } catch (const std::runtime_error&) {
            return false;
        }
        platform::setNonBlocking(client_->socket(), true);
        begun_ = 0;
        sent_ = 0;
        end_ = script_.begin.size();
        if (script_.resetsEvery > 0) end_ = ++times_ * script_.resetsEvery % (end_ + 1);
        return true;
    }
    // In a step of its own, so the daemon has read what was sent.
    bool reset() {
        const linger now{1, 0};
        setsockopt(client_->socket(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
        client_.reset();
        return false;
    }
    void drain() {
        static thread_local std::vector<std::byte> room(kPiece * 4);
        for (int i = 0; i < 8; ++i) {
            const auto result = platform::receiveSome(client_->socket(), room);
            if (result.bytes < room.size()) return;
        }
    }

    const Script& script_;
    const std::uint16_t port_;
    std::optional<RawClient> client_;
    std::size_t times_;
    std::size_t begun_ = 0;
    std::size_t end_ = 0;  // of what it sends of `begin`
    std::size_t sent_ = 0;
};

Script scriptOf(const std::string& name) {
    return std::ranges::find(kinds(), name, [](const Kind& kind) { return kind.trouble.name; })
        ->script();
}

}  // namespace

const std::vector<Trouble>& troubles() {
    static const std::vector<Trouble> all = [] {
        std::vector<Trouble> some;
        for (const Kind& kind : kinds()) some.push_back(kind.trouble);
        return some;
    }();
    return all;
}

struct Troublemakers::State {
    const Script script;
    std::vector<Client> clients;
};

Troublemakers::Troublemakers(const std::string& name, int clients, std::uint16_t port)
    : state_(new State{scriptOf(name), {}}) {
    for (int i = 0; i < clients; ++i)
        state_->clients.emplace_back(state_->script, port, static_cast<std::size_t>(i));
}
Troublemakers::~Troublemakers() = default;
Troublemakers::Troublemakers(Troublemakers&&) noexcept = default;

bool Troublemakers::step() {
    bool isBusy = false;
    for (Client& client : state_->clients) isBusy = client.step() || isBusy;
    return isBusy;
}

}  // namespace kvx::test
