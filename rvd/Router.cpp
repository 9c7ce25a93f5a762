// Spaces, sessions and listens.
//
// A space owns its sessions and one subject tree, and exists while it has sessions, also such as
// have left and still have listens: to undo many at once would take too long. The tree holds
// one entry per session and subject, however often the listen was made: the session has the count,
// by the number that the tree has given to the subject.
// Patterns of a session beyond the first few go into a tree of its own, which a match leaves as
// soon as it has found one: however many of them fit, and whatever they share with one another, a
// message pays for a bounded number of steps. A session whose own tree takes more has to go.
//
// A match finds each session once, although several of its listens may fit. In its first turn,
// which mostly is the only one, it marks the sessions with its number; other matches come in
// between the following ones, for which it remembers whom it has found.

#include "rvd/Router.h"

#include <algorithm>
#include <cstring>
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
    std::map<std::uint64_t, std::shared_ptr<OwnTree>> ownTrees;  // by number
    std::uint64_t newestOwn = 0;
    Sessions sessions;
    std::size_t left = 0;  // sessions that have left, and still have listens
};

// The patterns of one session beyond the first few. A match may hold it longer than the session.
struct Router::OwnTree {
    OwnTree(std::uint64_t ownNumber, Session& owner)
        : number(ownNumber), session(&owner), listens({owner.space_.hash}) {}

    const std::uint64_t number;
    Session* session;  // null when it has none of these patterns any more
    SubjectTree<Session> tree;
    Listens listens;
};

// Where a session has, or would have, its listen to a subject.
struct Router::Place {
    SubjectTree<Session>& tree;
    Listens& listens;
    Listen* listen;  // null: none
};

namespace {

constexpr std::size_t kFewListens = 64;
constexpr std::size_t kFewPatterns = 64;  // in the tree of the space
constexpr std::size_t kUndonePerListen = 2;
constexpr std::size_t kOwnTreeCost = 16'384;
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

Router::Router(Counters& counters) : counters_(counters) {
    lastSubject_.reserve(kMaxSubjectBytes);  // a match needs no memory for it
}
Router::~Router() = default;

Router::Session::Session(Space& space, Receiver& receiver, std::uint64_t newestMatch)
    : space_(space), receiver_(&receiver), joinedAfter_(newestMatch), listens_({space.hash}) {}

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
    space.sessions.push_back(std::unique_ptr<Session>(new Session(space, receiver, matchNumber_)));
    if (made) spaces_.emplace(name, std::move(made));
    counters_.add(Counter::SessionsOpen);
    Session& session = *space.sessions.back();
    session.place_ = std::prev(space.sessions.end());
    return session;
}

void Router::leave(Session& session) {
    Space& space = session.space_;
    ++changes_;
    session.receiver_ = nullptr;
    counters_.subtract(Counter::ListensOpen, session.listenCount_);
    counters_.subtract(Counter::SessionsOpen);
    left_.splice(left_.begin(), space.sessions, session.place_);
    ++space.left;
    orphanedBytes_ += session.listenBytes_;
    if (session.listens_.size() <= kFewListens) (void)clearUp(session.listens_.size() + 1);
}

bool Router::clearUp(std::size_t most) {
    for (; most > 0 && !left_.empty(); --most) {
        Session& session = *left_.front();
        Space& space = session.space_;
        orphanedBytes_ -= session.listenBytes_;
        if (Listen* const listen = session.listens_.any(); listen != nullptr) {
            undo(session, {space.tree, session.listens_, listen});
        } else if (session.own_) {
            OwnTree& own = *session.own_;
            undo(session, {own.tree, own.listens, own.listens.any()});
        } else {
            left_.pop_front();
            const bool isLast = --space.left == 0 && space.sessions.empty();
            if (isLast) spaces_.erase(spaces_.find(space.name));
            continue;
        }
        orphanedBytes_ += session.listenBytes_;
    }
    return hasLeft();
}

void Router::undo(Session& session, const Place& place) {
    (void)place.tree.remove(place.listen->subject, &session);
    place.listens.erase(place.listen);
    if (!session.own_ || session.own_->listens.size() != 0) return;
    session.space_.ownTrees.erase(session.own_->number);
    session.own_->session = nullptr;
    session.own_.reset();
    session.listenBytes_ -= kOwnTreeCost;
}

Router::Place Router::placeOf(Session& session, SubjectView subject) {
    const SubjectHash& hash = session.space_.hash;
    const auto placeIn = [subject, &hash](SubjectTree<Session>& tree, Listens& listens) -> Place {
        const Listen wanted{tree.find(subject)};
        if (wanted.subject == 0) return {tree, listens, nullptr};
        return {tree, listens,
                listens.find(ListenHash{hash}(wanted), [wanted](const Listen& known) {
                    return known.subject == wanted.subject;
                })};
    };
    const Place shared = placeIn(session.space_.tree, session.listens_);
    if (shared.listen != nullptr || !session.own_) return shared;
    const Place own = placeIn(session.own_->tree, session.own_->listens);
    return own.listen != nullptr ? own : shared;
}

// The place of a new listen.
Router::Place Router::placeFor(Session& session, SubjectView subject) {
    Space& space = session.space_;
    if (session.patterns_ < kFewPatterns || !subject.hasWildcards()) {
        return {space.tree, session.listens_, nullptr};
    }
    if (!session.own_) {
        const std::uint64_t number = ++space.newestOwn;
        auto own = std::make_shared<OwnTree>(number, session);
        space.ownTrees.emplace(number, own);
        session.own_ = std::move(own);
        session.listenBytes_ += kOwnTreeCost;
    }
    return {session.own_->tree, session.own_->listens, nullptr};
}

// Whoever listens also undoes, so sessions that come and go cannot leave listens behind faster than
// they are undone.
bool Router::listen(Session& session, SubjectView subject) {
    (void)clearUp(kUndonePerListen);
    Listen* const known = placeOf(session, subject).listen;
    if (known == nullptr) {
        const std::size_t own = session.own_ ? session.own_->listens.size() : 0;
        if (session.listens_.size() + own >= kMaxListens) return false;
        const Place place = placeFor(session, subject);
        place.listens.makeRoom();
        place.listens.insert({place.tree.add(subject, &session), 1});
        ++changes_;
        session.listenBytes_ += listenCost(subject);
        if (&place.listens == &session.listens_ && subject.hasWildcards()) ++session.patterns_;
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
    const Place place = placeOf(session, subject);
    if (place.listen == nullptr) return;
    counters_.subtract(Counter::ListensOpen);
    --session.listenCount_;
    if (place.listen->number > 1) {
        --place.listen->number;
        return;
    }
    ++changes_;
    session.listenBytes_ -= listenCost(subject);
    if (&place.listens == &session.listens_ && subject.hasWildcards()) --session.patterns_;
    undo(session, place);
}

std::optional<std::span<Receiver* const>> Router::lastMatch(const Session& from,
                                                            SubjectView subject) const {
    const std::size_t length = subject.length();
    const bool isKnown = lastSpace_ == &from.space_ && lastChanges_ == changes_ &&
                         lastSubject_.size() == length &&
                         std::memcmp(lastSubject_.data(), subject.data(), length) == 0;
    if (!isKnown) return std::nullopt;
    return found_;
}

// A place in the tree of one session.
struct Router::Match::OwnSearch {
    OwnSearch(std::shared_ptr<OwnTree> ownTree, SubjectMatch how)
        : own(std::move(ownTree)),
          search(own->tree, how),
          // A message on a pattern is compared with every subject, which is its sender's doing.
          stepsLeft(how == SubjectMatch::kCovered ? std::numeric_limits<std::size_t>::max()
                                                  : kMaxSteps) {}

    const std::shared_ptr<OwnTree> own;
    SubjectTree<Session>::Search search;
    std::size_t stepsLeft;
};

Router::Match::Match(Router& router, const Session& from, SubjectView subject)
    : router_(router),
      space_(from.space_),
      how_(matchFor(subject)),
      number_(++router.matchNumber_),
      shared_(space_.tree, how_) {}

Router::Match::~Match() = default;

std::size_t Router::Match::memory() const {
    constexpr std::size_t kNode = 4 * sizeof(void*);  // of the set, with its block
    return seen_.size() * kNode + seen_.bucket_count() * sizeof(void*);
}

std::span<Receiver* const> Router::Match::advance(SubjectView subject, std::size_t steps) {
    auto& found = router_.found_;
    found.clear();
    router_.lastSpace_ = nullptr;
    const bool isThrough =
        shared_.advance(subject, steps, [this](Session& session) { find(session); });
    if (isThrough) searchOwn(subject, steps);
    hasFound_ = hasFound_ || !found.empty();
    if (isFirstTurn_) isDone_ ? remember(subject) : seen_.insert(found.begin(), found.end());
    isFirstTurn_ = false;
    return found;
}

void Router::Match::remember(SubjectView subject) {
    const auto* const bytes = static_cast<const std::uint8_t*>(subject.data());
    router_.lastSubject_.assign(bytes, bytes + subject.length());
    router_.lastSpace_ = &space_;
    router_.lastChanges_ = router_.changes_;
}

// A client that reconnects between two turns may have had the message by its former session.
void Router::Match::find(Session& session) {
    if (session.receiver_ == nullptr || session.lastMatch_ == number_) return;
    if (session.joinedAfter_ >= number_) return;
    session.lastMatch_ = number_;
    if (!isFirstTurn_ && !seen_.insert(session.receiver_).second) return;
    router_.found_.push_back(session.receiver_);
}

void Router::Match::searchOwn(SubjectView subject, std::size_t& steps) {
    while (steps > 0) {
        if (!own_) {
            isDone_ = !enterNext();
            if (isDone_) return;
            --steps;
            continue;
        }
        const std::size_t given = std::min(steps, own_->stepsLeft);
        std::size_t left = given;
        bool hasHit = false;
        const bool isThrough = own_->search.advance(subject, left, [&](Session& session) {
            find(session);
            hasHit = true;
            return false;
        });
        steps -= given - left;
        own_->stepsLeft -= given - left;
        const bool isTooCostly = !hasHit && !isThrough && own_->stepsLeft == 0;
        Session* const owner = own_->own->session;
        if (isTooCostly && owner != nullptr && owner->receiver_ != nullptr) {
            owner->receiver_->dismiss();
        }
        if (hasHit || isThrough || isTooCostly) own_.reset();
    }
}

// Goes to the next session's tree. False when there is none.
bool Router::Match::enterNext() {
    const auto next = space_.ownTrees.upper_bound(lastOwn_);
    if (next == space_.ownTrees.end()) return false;
    lastOwn_ = next->first;
    own_ = std::make_unique<OwnSearch>(next->second, how_);
    return true;
}

}  // namespace kvx::rvd
