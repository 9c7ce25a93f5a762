// Spaces, sessions and listens.
//
// A space owns its sessions and one subject tree, and exists while it has sessions, also such as
// have left and still have listens: to undo many at once would take too long. The tree holds
// one entry per session and subject, however often the listen was made: the session has the count.
// A match collects each session once, although several of its listens may match: a session stores
// the number of the last match that found it.

#include "rvd/Router.h"

#include <iterator>

#include "rv/wire/Limits.h"

namespace kvx::rvd {

struct Router::Space {
    explicit Space(SpaceName spaceName) : name(std::move(spaceName)) {}

    const SpaceName name;
    SubjectTree<Listen> tree;
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

std::string keyOf(SubjectView subject) {
    return {static_cast<const char*>(subject.data()), subject.length()};
}

std::string_view serviceOrDefault(std::string_view service) {
    return service.empty() ? std::string_view(wire::kDefaultService) : service;
}

}  // namespace

Router::Router(Counters& counters) : counters_(counters) {}
Router::~Router() = default;

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
        if (!session.listens_.empty()) {
            undo(session, session.listens_.begin());
            continue;
        }
        Space& space = session.space_;
        left_.pop_front();
        if (--space.left == 0 && space.sessions.empty()) spaces_.erase(spaces_.find(space.name));
    }
    return hasLeft();
}

void Router::undo(Session& session, std::unordered_map<std::string, Listen>::iterator listen) {
    const SubjectView subject = SubjectView::trusted(listen->first.data());
    (void)session.space_.tree.remove(subject, &listen->second);
    session.listenBytes_ -= listenCost(subject);
    session.listens_.erase(listen);
}

bool Router::listen(Session& session, SubjectView subject) {
    std::string key = keyOf(subject);
    auto found = session.listens_.find(key);
    if (found == session.listens_.end()) {
        if (session.listens_.size() >= kMaxListens) return false;
        found = session.listens_.emplace(std::move(key), Listen{&session, 0}).first;
        try {
            session.space_.tree.add(subject, &found->second);
        } catch (...) {
            session.listens_.erase(found);
            throw;
        }
        session.listenBytes_ += listenCost(subject);
    }
    ++found->second.count;
    ++session.listenCount_;
    counters_.add(Counter::ListensOpen);
    return true;
}

void Router::cancel(Session& session, SubjectView subject) {
    const auto found = session.listens_.find(keyOf(subject));
    if (found == session.listens_.end()) return;
    counters_.subtract(Counter::ListensOpen);
    --session.listenCount_;
    if (--found->second.count == 0) undo(session, found);
}

std::span<Receiver* const> Router::match(const Session& from, SubjectView subject) {
    matched_.clear();
    ++matchNumber_;
    collect(from.space_, subject);
    return matched_;
}

void Router::collect(const Space& space, SubjectView subject) {
    const auto take = [this](const Listen& listen) {
        Session& session = *listen.session;
        if (session.receiver_ == nullptr || session.lastMatch_ == matchNumber_) return;
        session.lastMatch_ = matchNumber_;
        matched_.push_back(session.receiver_);
    };
    if (subject.hasWildcards()) {
        space.tree.matchCovered(subject, take);
    } else if (subject.first() == kInboxElement) {
        space.tree.matchLiteralRoot(subject, take);
    } else {
        space.tree.match(subject, take);
    }
}

}  // namespace kvx::rvd
