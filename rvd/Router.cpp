// Spaces, sessions and listens.
//
// A space owns its sessions and one subject tree, and exists while it has sessions, also such as
// have left and still have listens: to undo many at once would take too long. The tree holds
// one entry per session and subject, however often the listen was made: the session has the count,
// by the number that the tree has given to the subject.
// A match collects each session once, although several of its listens may match: a session stores
// the number of the last match that found it.

#include "rvd/Router.h"

#include <iterator>
#include <limits>
#include <random>

#include "rv/wire/Limits.h"

namespace kvx::rvd {

struct Router::Space {
    explicit Space(SpaceName spaceName) : name(std::move(spaceName)) {}

    const SpaceName name;
    const SubjectHash hash{std::random_device()()};  // of the numbers of subjects
    SubjectTree<Session> tree;
    Sessions sessions;
    std::size_t left = 0;  // sessions that have left, and still have listens
};

namespace {

constexpr std::size_t kFewListens = 64;
// What a listen takes, in the session and in the tree: at most this, whatever its subject.
std::size_t listenCost(SubjectView subject) {
    constexpr std::size_t kMessageBytes = 32;  // of a listen message besides the subject
    constexpr std::size_t kFixed = 256;
    return 4 * (subject.length() + kMessageBytes) + kFixed;
}

std::string_view serviceOrDefault(std::string_view service) {
    return service.empty() ? std::string_view(wire::kDefaultService) : service;
}

SubjectMatch matchFor(SubjectView subject) {
    if (subject.hasWildcards()) return SubjectMatch::kCovered;
    return subject.first() == kInboxElement ? SubjectMatch::kLiteralRoot : SubjectMatch::kAny;
}

}  // namespace

Router::Router(Counters& counters) : counters_(counters) {}
Router::~Router() = default;

Router::Session::Session(Space& space, Receiver& receiver)
    : space_(space), receiver_(&receiver), listens_({space.hash}) {}

bool Router::Session::isIn(std::string_view service, std::string_view network) const {
    return space_.name.first == serviceOrDefault(service) && space_.name.second == network;
}

Router::Session& Router::join(std::string_view service, std::string_view network,
                              Receiver& receiver) {
    const SpaceName name(serviceOrDefault(service), network);
    const auto found = spaces_.find(name);
    std::unique_ptr<Space> made;
    if (found == spaces_.end()) made = std::make_unique<Space>(name);
    Space& space = made ? *made : *found->second;
    space.sessions.push_back(std::unique_ptr<Session>(new Session(space, receiver)));
    if (made) spaces_.emplace(name, std::move(made));
    counters_.add(Counter::SessionsOpen);
    Session& session = *space.sessions.back();
    session.place_ = std::prev(space.sessions.end());
    return session;
}

void Router::leave(Session& session) {
    Space& space = session.space_;
    session.receiver_ = nullptr;
    counters_.subtract(Counter::ListensOpen, session.listenCount_);
    counters_.subtract(Counter::SessionsOpen);
    left_.splice(left_.begin(), space.sessions, session.place_);
    ++space.left;
    if (session.listens_.size() <= kFewListens) (void)clearUp(session.listens_.size() + 1);
}

bool Router::clearUp(std::size_t most) {
    for (; most > 0 && !left_.empty(); --most) {
        Session& session = *left_.front();
        if (Listen* const listen = session.listens_.any(); listen != nullptr) {
            undo(session, *listen);
            continue;
        }
        Space& space = session.space_;
        left_.pop_front();
        if (--space.left == 0 && space.sessions.empty()) spaces_.erase(spaces_.find(space.name));
    }
    return hasLeft();
}

void Router::undo(Session& session, Listen& listen) {
    (void)session.space_.tree.remove(listen.subject, &session);
    session.listens_.erase(&listen);
}

Router::Listen* Router::listenOf(const Session& session, SubjectView subject) {
    const Listen wanted{session.space_.tree.find(subject)};
    if (wanted.subject == 0) return nullptr;
    return session.listens_.find(
        ListenHash{session.space_.hash}(wanted),
        [wanted](const Listen& listen) { return listen.subject == wanted.subject; });
}

bool Router::listen(Session& session, SubjectView subject) {
    Listen* const known = listenOf(session, subject);
    if (known == nullptr) {
        if (session.listens_.size() >= kMaxListens) return false;
        session.listens_.makeRoom();
        session.listens_.insert({session.space_.tree.add(subject, &session), 1});
        session.listenBytes_ += listenCost(subject);
    } else if (known->number == std::numeric_limits<std::uint32_t>::max()) {
        return true;
    } else {
        ++known->number;
    }
    ++session.listenCount_;
    counters_.add(Counter::ListensOpen);
    return true;
}

void Router::cancel(Session& session, SubjectView subject) {
    Listen* const known = listenOf(session, subject);
    if (known == nullptr) return;
    counters_.subtract(Counter::ListensOpen);
    --session.listenCount_;
    if (known->number > 1) {
        --known->number;
    } else {
        session.listenBytes_ -= listenCost(subject);
        undo(session, *known);
    }
}

std::span<Receiver* const> Router::match(const Session& from, SubjectView subject) {
    matched_.clear();
    ++matchNumber_;
    SubjectTree<Session>::Search search(from.space_.tree, matchFor(subject));
    std::size_t steps = std::numeric_limits<std::size_t>::max();
    search.advance(subject, steps, [this](Session& session) {
        if (session.receiver_ == nullptr || session.lastMatch_ == matchNumber_) return;
        session.lastMatch_ = matchNumber_;
        matched_.push_back(session.receiver_);
    });
    return matched_;
}

}  // namespace kvx::rvd
