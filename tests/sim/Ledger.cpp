#include "tests/sim/Ledger.h"

#include <charconv>

#include "rv/message/SubjectView.h"
#include "rv/message/WireReader.h"
#include "rv/message/rvmsg.h"
#include "rv/wire/ControlMessage.h"
#include "rvd/Router.h"
#include "tests/sim/World.h"

namespace kvx::sim {

namespace {

constexpr std::size_t kHeader = 8;
const std::string kInterest = "_RVD.INTEREST";

std::uint32_t wordAt(const std::string& bytes, std::size_t at) {
    return loadBig32(reinterpret_cast<const std::uint8_t*>(bytes.data()) + at);
}

wire::Bytes asBytes(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::string_view payloadOf(std::string_view message) {
    rvmsg_Type type = 0;
    rvmsg_Size size = 0;
    rvmsg_Data data = nullptr;
    if (rvmsg_GetRaw(message.data(), "data", &type, &size, &data) != 0) return {};
    return {static_cast<const char*>(data), size};
}

std::string linkName(unsigned link) {
    return " (link " + std::to_string(link) + ")";
}

bool matches(const std::string& pattern, const std::string& subject) {
    if (pattern[0] != subject[0] && pattern[0] != '*' && pattern[0] != '>') return false;
    if (pattern.starts_with("_INBOX") != subject.starts_with("_INBOX")) return false;
    std::size_t p = 0;
    std::size_t s = 0;
    while (p < pattern.size() && s < subject.size()) {
        const std::size_t pEnd = std::min(pattern.find('.', p), pattern.size());
        const std::size_t sEnd = std::min(subject.find('.', s), subject.size());
        const std::string_view element(pattern.data() + p, pEnd - p);
        const std::string_view other(subject.data() + s, sEnd - s);
        if (element == ">") return true;
        if (other == ">" || (element != "*" && element != other)) return false;
        p = pEnd + 1;
        s = sEnd + 1;
    }
    return p > pattern.size() && s > subject.size();
}

}  // namespace

std::string MessageId::text() const {
    return std::to_string(sender) + " " + std::to_string(number);
}

MessageId MessageId::of(std::string_view payload) {
    MessageId id;
    const char* const end = payload.data() + payload.size();
    const auto sender = std::from_chars(payload.data(), end, id.sender);
    if (sender.ec != std::errc() || sender.ptr == end) return {};
    const auto number = std::from_chars(sender.ptr + 1, end, id.number);
    return number.ec == std::errc() ? id : MessageId{};
}

bool hears(const std::string& pattern, const std::string& subject) {
    const bool isWild = subject.find_first_of("*>") != std::string::npos;
    return isWild ? matches(subject, pattern) : matches(pattern, subject);
}

// Calls `visit` for each whole message but keepalives; a close notice is an empty one.
template <class Visit>
void Ledger::cut(Stream& stream, std::string_view bytes, Visit visit) {
    const std::size_t skipped = std::min(stream.head, bytes.size());
    stream.head -= skipped;
    stream.held += bytes.substr(skipped);
    std::size_t at = 0;
    while (stream.held.size() - at >= kHeader) {
        const bool isClose = wordAt(stream.held, at + 4) == 0;
        const std::size_t length = isClose ? kHeader : wordAt(stream.held, at);
        if (stream.held.size() - at < length) break;
        if (isClose) visit(std::string_view());
        if (length > kHeader) visit(std::string_view(stream.held).substr(at, length));
        at += length;
    }
    stream.held.erase(0, at);
}

void Ledger::daemonRead(unsigned link, std::string_view bytes) {
    Session& session = sessions_[link];
    if (session.gone) return;
    cut(session.up, bytes, [&](std::string_view message) { fromClient(link, session, message); });
}

void Ledger::daemonWrote(unsigned link, std::string_view bytes) {
    Session& session = sessions_[link];
    cut(session.down, bytes, [&](std::string_view message) { toClient(link, session, message); });
}

void Ledger::daemonHasCaughtUp() {
    ++epoch_;
    recent_.clear();
}

// What was read lately may be among what is not processed.
void Ledger::ignored(unsigned link) {
    const Harness harness;
    sessions_[link].isIgnored = true;
    for (auto& [number, session] : sessions_)
        for (auto due = session.due.rbegin(); due != session.due.rend() && due->readIn == epoch_;
             ++due)
            if (due->from == link) due->certain = false;
}

void Ledger::left(unsigned link) {
    ignored(link);
    sessions_[link].gone = true;
}

// The session cancels a listen, perhaps before what was read lately is processed.
void Ledger::makeUncertain(Session& session) const {
    for (auto due = session.due.rbegin(); due != session.due.rend() && due->readIn == epoch_; ++due)
        due->certain = false;
}

void Ledger::fromClient(unsigned link, Session& session, std::string_view message) {
    if (message.empty()) return left(link);
    const wire::Routing routing = wire::readRouting(asBytes(message));
    const auto view = SubjectView::parse(routing.subject.data(), routing.subject.size());
    const std::string subject = view ? view->text() : "";
    Listens& listens = session.listens[subject];
    switch (routing.type) {
        case wire::MessageType::Init:
            session.joined = true;
            session.space = *wire::readInit(asBytes(message)).service;
            return;
        case wire::MessageType::Listen:
            if (listens.count++ == 0) listens.since = epoch_;
            noteFollowing(session, subject);
            for (const Published& earlier : recent_) owe(link, session, earlier, true);
            return;
        case wire::MessageType::Cancel:
            if (listens.count > 0 && --listens.count == 0) listens.endedIn = epoch_;
            noteFollowing(session, subject);
            makeUncertain(session);
            return;
        case wire::MessageType::Data:
            return published(
                {link, session.space, subject, MessageId::of(payloadOf(message)), message.size()});
        default:
            world->fail("the client sent a message of another kind" + linkName(link));
    }
}

std::set<std::string> Ledger::subjectsOf(const Session& session) {
    std::set<std::string> subjects;
    for (const auto& [subject, listens] : session.listens)
        if (listens.count > 0) subjects.insert(subject);
    return subjects;
}

// From a listen to that subject on, unless there are many others, until nothing is left.
void Ledger::noteFollowing(Session& session, const std::string& subject) {
    const std::size_t number = subjectsOf(session).size();
    const bool begins = subject == kInterest && session.listens[subject].count > 0 &&
                        number <= 1 + rvd::Router::kFewListens;
    const bool follows = session.follows ? number > 0 : begins;
    if (follows == std::exchange(session.follows, follows)) return;
    session.hasFollowed = true;
    session.followsSince = epoch_;
    makeUncertain(session);
}

void Ledger::checkInterest() const {
    for (const auto& [link, follower] : sessions_) {
        const auto listens = follower.listens.find(kInterest);
        if (follower.gone || !follower.follows || listens->second.count == 0) continue;
        std::set<std::string> expected;
        for (const auto& [other, session] : sessions_)
            if (session.joined && !session.gone && !session.follows &&
                session.space == follower.space)
                expected.merge(subjectsOf(session));
        if (!follower.told.isComplete) world->fail("not told all interest" + linkName(link));
        if (follower.told.known != expected)
            world->fail("told " + std::to_string(follower.told.known.size()) + " subjects of " +
                        std::to_string(expected.size()) + linkName(link));
    }
}

// Of one connection, everything accepted before this message has arrived before it.
void Ledger::checkArrival(Session& from, MessageId id) {
    const MessageId last = std::exchange(from.lastRead, id);
    if (last.sender != id.sender) return;
    if (id.number <= last.number) world->fail("a sender's order is broken at " + id.text());
    for (MessageId between = last; ++between.number < id.number;) {
        const auto found = accepted_.find(between);
        if (found != accepted_.end() && found->second)
            world->fail("lost before the daemon: " + between.text());
    }
}

void Ledger::published(const Published& message) {
    if (message.id.sender == 0) world->fail("a message without identity" + linkName(message.from));
    checkArrival(sessions_[message.from], message.id);
    if (!published_.emplace(message.id, message.from).second)
        world->fail("sent twice: " + message.id.text());
    recent_.push_back(message);
    for (auto& [link, session] : sessions_) owe(link, session, message, false);
}

// `mayBeLate`: the session began to listen after the message was read.
void Ledger::owe(unsigned link, Session& session, const Published& message, bool mayBeLate) {
    if (!session.joined || session.gone || session.space != message.space) return;
    const bool own = link == message.from;
    if (session.places.contains(message.id) || (mayBeLate && own)) return;
    const Session& from = sessions_[message.from];
    const bool isNews = !own && session.hasFollowed && session.followsSince == epoch_;
    if (from.follows && session.follows && !isNews) return;
    bool certain = false;
    bool possible = false;
    for (const auto& [pattern, listens] : session.listens) {
        if (session.hasFollowed && pattern == kInterest) continue;
        if (!hears(pattern, message.subject)) continue;
        certain = certain || (listens.count > 0 && (own || listens.since < epoch_));
        possible = possible || listens.count > 0 || (!own && listens.endedIn == epoch_);
    }
    if (!possible) return;
    const bool tooLarge = message.size > queueLimit;
    session.places[message.id] = session.due.size();
    certain = certain && !from.isIgnored && !(from.follows && isNews);
    session.due.push_back({message.id, certain, tooLarge, message.from, epoch_});
}

void Ledger::toClient(unsigned link, Session& session, std::string_view message) {
    if (message.empty()) {
        session.closedByDaemon = true;
        return left(link);
    }
    const wire::Routing routing = wire::readRouting(asBytes(message));
    if (routing.type != wire::MessageType::Data) return;
    const auto view = SubjectView::parse(routing.subject.data(), routing.subject.size());
    if (!view) world->fail("the daemon wrote a message without subject");
    if (session.told.takeMessage(asBytes(message))) {
        if (!session.hasFollowed) world->fail("told without being asked" + linkName(link));
        return;
    }
    if (view->text() != "_RV.WARN.SYSTEM.DATALOSS")
        return pay(link, session, MessageId::of(payloadOf(message)));
    rvmsg_Type type = 0;
    rvmsg_Size size = 0;
    rvmsg_Data lost = nullptr;
    if (rvmsg_GetRaw(payloadOf(message).data(), "lost", &type, &size, &lost) != 0 || size != 4)
        world->fail("an announcement without its number");
    session.announced += loadBig32(static_cast<const std::uint8_t*>(lost));
}

// What may have been dropped before `paid`, the oldest first: it was read earlier, or at the same
// time, or was too large for the queue.
std::uint64_t Ledger::mayBeLost(const Session& session, const Due& paid) {
    std::uint64_t count = 0;
    for (const Due& due : session.due)
        if (!due.paid && (&due < &paid || due.readIn == paid.readIn || due.tooLarge)) ++count;
    return count;
}

void Ledger::pay(unsigned link, Session& session, MessageId id) {
    const auto found = session.places.find(id);
    const std::string what = id.text() + linkName(link);
    if (found == session.places.end()) {
        if (session.gone) return;         // published before it had left
        if (session.hasFollowed) return;  // the search for its patterns took too long
        world->fail("delivered but not due: " + what);
    }
    Due& due = session.due[found->second];
    if (due.paid) world->fail("delivered twice: " + what);
    due.paid = true;
    const MessageId last = std::exchange(session.lastPaid[due.from], id);
    if (last.number >= id.number) world->fail("a sender's order is broken: " + what);
    if (session.gone) return;  // others may have been matched before the daemon knew
    const auto isMissing = [](const Due& d) { return d.certain && !d.paid && !d.tooLarge; };
    for (auto p = session.places.upper_bound({id.sender, last.number}); p != found; ++p)
        if (session.due[p->second].from == due.from && isMissing(session.due[p->second]))
            ++session.skipped;
    if (session.skipped > session.announced)
        world->fail("a loss was not announced ahead of " + what);
    if (session.announced > 0 && !noMemory && !session.hasFollowed &&
        session.announced > mayBeLost(session, due))
        world->fail("newer messages were dropped before " + what);
}

void Ledger::checkCalm() const {
    for (const auto& [link, session] : sessions_) {
        if (session.gone || !session.joined) continue;
        std::uint64_t least = 0;
        std::uint64_t most = 0;
        for (const Due& due : session.due) {
            if (due.paid) continue;
            ++most;
            if (due.certain) ++least;
        }
        if (session.announced < least || (session.announced > most && !session.hasFollowed))
            world->fail(std::to_string(session.announced) + " announced as lost, " +
                        std::to_string(least) + " to " + std::to_string(most) + " missing" +
                        linkName(link));
    }
}

}  // namespace kvx::sim
