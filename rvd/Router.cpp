// Spaces, sessions and listens.
//
// A space owns its sessions and one subject tree, and exists while it has sessions, also such as
// have left and still have listens: to undo many at once would take too long. The tree holds
// one entry per session and subject, however often the listen was made: the session has the count,
// by the number that the tree has given to the subject.
// Patterns of a session beyond the first few go into a tree of its own, which a match leaves as
// soon as it has found one: however many of them fit, and whatever they share with one another, a
// message pays for a bounded number of steps. A session whose own tree takes more has to go.
// A session that follows the interest of its space has all its listens in such a tree: the tree of
// the space has what is told, but for the patterns in trees of others, which `Interest` counts. Its
// listens are those of others, so it does not have to go: what would cost it more reaches it.
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
#include "rvd/DaemonSubject.h"

namespace kvx::rvd {

struct Router::Space {
    Space(std::uint64_t spaceNumber, SpaceName spaceName, const Interest::Settings& settings)
        : number(spaceNumber), name(std::move(spaceName)), interest(settings) {}
    // Whether a session that does not follow listens to exactly that subject.
    [[nodiscard]] bool isListenedTo(SubjectView subject) const {
        return tree.find(subject) != 0 || interest.hasPattern(subject);
    }

    const std::uint64_t number;
    const SpaceName name;
    const SubjectHash hash{std::random_device()()};  // of the numbers of subjects
    SubjectTree<Session> tree;
    std::map<std::uint64_t, std::shared_ptr<OwnTree>> ownTrees;  // by number
    std::uint64_t newestOwn = 0;
    Interest interest;
    Sessions sessions;
    std::size_t left = 0;  // sessions that have left, and still have listens
};

// The patterns of one session beyond the first few, or all listens of one that follows. A match may
// hold it longer than the session.
struct Router::OwnTree {
    OwnTree(std::uint64_t ownNumber, Session& owner)
        : number(ownNumber), session(&owner), listens({owner.space_.hash}) {}

    const std::uint64_t number;
    Session* session;                    // null when it has none of these listens any more
    std::unique_ptr<Follower> follower;  // null: it does not follow
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

std::string randomText() {
    std::random_device random;
    std::string text;
    while (text.size() < 16) text += "0123456789abcdef"[random() % 16];
    return text;
}

}  // namespace

Router::Router(Counters& counters, std::size_t queueLimit)
    : counters_(counters), interest_{randomText(), Interest::capacityFor(queueLimit)} {
    lastSubject_.reserve(kMaxSubjectBytes);  // a match needs no memory for it
}
Router::~Router() = default;

Router::Session::Session(Space& space, Receiver& receiver, std::uint64_t newestMatch)
    : space_(space), receiver_(&receiver), joinedAfter_(newestMatch), listens_({space.hash}) {}

std::size_t Router::Session::distinctListens() const {
    return listens_.size() + (own_ ? own_->listens.size() : 0);
}

bool Router::Session::follows() const {
    return own_ && own_->follower;
}

std::uint64_t Router::Session::space() const {
    return space_.number;
}

const std::string& Router::Session::service() const {
    return space_.name.first;
}

const std::string& Router::Session::network() const {
    return space_.name.second;
}

std::size_t Router::Session::patterns() const {
    return patterns_ + (own_ ? own_->listens.size() : 0);
}

bool Router::Session::isIn(std::string_view service, std::string_view network) const {
    return space_.name.first == serviceOrDefault(service) && space_.name.second == network;
}

Router::Session& Router::join(std::string_view service, std::string_view network,
                              Receiver& receiver) {
    const SpaceName name(serviceOrDefault(service), network);
    const auto found = spaces_.find(name);
    std::unique_ptr<Space> made;
    if (found == spaces_.end()) made = std::make_unique<Space>(++newestSpace_, name, interest_);
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
    if (session.isTold_) unfollow(session);
    session.receiver_ = nullptr;
    counters_.subtract(Counter::ListensOpen, session.listenCount_);
    counters_.subtract(Counter::SessionsOpen);
    left_.splice(left_.begin(), space.sessions, session.place_);
    ++space.left;
    orphanedBytes_ += session.listenBytes_;
    const std::size_t listens = session.distinctListens();
    if (listens <= kFewListens) (void)clearUp(listens + 1);
}

bool Router::clearUp(std::size_t most) {
    for (; most > 0 && !left_.empty(); --most) {
        Session& session = *left_.front();
        Space& space = session.space_;
        orphanedBytes_ -= session.listenBytes_;
        if (Listen* const listen = session.listens_.any(); listen != nullptr) {
            undo(session, {space.tree, session.listens_, listen});
        } else if (session.own_ && session.own_->listens.size() != 0) {
            OwnTree& own = *session.own_;
            undo(session, {own.tree, own.listens, own.listens.any()});
        } else {
            if (session.own_) dropOwnTree(session);
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
    if (!session.follows()) forget(session, place);
    (void)place.tree.remove(place.listen->subject, &session);
    place.listens.erase(place.listen);
    if (session.own_ && session.own_->listens.size() == 0 && !session.isTold_) dropOwnTree(session);
}

// The listen does not count any more.
void Router::forget(Session& session, const Place& place) noexcept {
    Space& space = session.space_;
    const auto id = place.listen->subject;
    const SubjectView subject = place.tree.subject(id);
    const bool isShared = &place.tree == &space.tree;
    if (!isShared) space.interest.removePattern(subject);
    if (!space.interest.isFollowed()) return;
    const bool isElsewhere = isShared
                                 ? space.tree.count(id) > 1 || space.interest.hasPattern(subject)
                                 : space.isListenedTo(subject);
    if (!isElsewhere) space.interest.removed(subject);
}

void Router::dropOwnTree(Session& session) noexcept {
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
    const bool mayShare = session.patterns_ < kFewPatterns || !subject.hasWildcards();
    if (mayShare && !session.follows()) return {space.tree, session.listens_, nullptr};
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
    if (daemonSubjectOf(subject) == DaemonSubject::Interest && follow(session)) return true;
    Listen* const known = placeOf(session, subject).listen;
    if (known == nullptr) {
        const std::size_t most = session.follows() ? kMaxListensOfFollower : kMaxListens;
        if (session.distinctListens() >= most) return false;
        const Place place = placeFor(session, subject);
        place.listens.makeRoom();
        place.listens.insert({add(session, place.tree, subject), 1});
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

void Router::save(const Session& session, StateWriter& state) {
    const auto saveIn = [&state](const SubjectTree<Session>& tree, const Listens& listens) {
        listens.each([&](const Listen& listen) {
            state.text(tree.subject(listen.subject).encoded());
            state.number(listen.number);
        });
    };
    state.boolean(session.follows());
    state.number(session.follows() ? session.own_->follower->listens : 0);
    state.number(session.distinctListens());
    saveIn(session.space_.tree, session.listens_);
    if (session.own_) saveIn(session.own_->tree, session.own_->listens);
}

void Router::restore(Session& session, StateReader& state) {
    const bool follows = state.boolean();
    const std::uint64_t interest = state.number();
    for (std::uint64_t i = 0; i < interest || (follows && i == 0); ++i) (void)follow(session);
    for (std::uint64_t left = state.number(); left > 0; --left) {
        const wire::Bytes encoded = state.bytes();
        const auto subject = SubjectView::parse(encoded.data(), encoded.size());
        if (!subject) throw StateError("a listen is not sound");
        const auto number = static_cast<std::uint32_t>(state.number());
        if (!listen(session, *subject)) throw StateError("a session has too many listens");
        placeOf(session, *subject).listen->number = number;
        session.listenCount_ += number - 1;
    }
    if (!follows || interest != 0) return;
    --session.listenCount_;
    unfollow(session);  // it had cancelled that listen, and still has others
}

// Adds a listen to a tree, and tells those who follow.
std::uint32_t Router::add(Session& session, SubjectTree<Session>& tree, SubjectView subject) {
    if (session.follows()) return tree.add(subject, &session);
    Space& space = session.space_;
    const bool isFirst = space.interest.isFollowed() && !space.isListenedTo(subject);
    const auto id = tree.add(subject, &session);
    if (&tree != &space.tree) {
        try {
            space.interest.addPattern(subject);
        } catch (...) {
            (void)tree.remove(id, &session);
            throw;
        }
    }
    if (isFirst) space.interest.added(subject);
    return id;
}

// False, with nothing changed, when it has too many listens. Throws `std::bad_alloc` and changes
// nothing.
bool Router::follow(Session& session) {
    Space& space = session.space_;
    const bool isNew = !session.follows();
    if (isNew && (session.own_ || session.listens_.size() > kFewListens)) return false;
    if (!session.isTold_) space.interest.prepare();
    if (isNew) moveToOwnTree(session);
    ++session.own_->follower->listens;
    ++session.listenCount_;
    counters_.add(Counter::ListensOpen);
    if (std::exchange(session.isTold_, true)) return true;
    ++changes_;
    counters_.add(Counter::FollowersOpen);
    counters_.add(Counter::InterestSnapshots);
    space.interest.join(*session.own_->follower);
    return true;
}

// What it listens to does not count any more.
void Router::moveToOwnTree(Session& session) {
    Space& space = session.space_;
    auto own = std::make_shared<OwnTree>(++space.newestOwn, session);
    own->follower = std::make_unique<Follower>(*session.receiver_);
    session.listens_.each([&](const Listen& listen) {
        own->listens.makeRoom();
        const auto id = own->tree.add(space.tree.subject(listen.subject), &session);
        own->listens.insert({id, listen.number});
    });
    space.ownTrees.emplace(own->number, own);
    while (Listen* const listen = session.listens_.any()) {
        undo(session, {space.tree, session.listens_, listen});
    }
    session.patterns_ = 0;
    session.own_ = std::move(own);
    session.listenBytes_ += kOwnTreeCost;
}

void Router::unfollow(Session& session) noexcept {
    session.isTold_ = false;
    session.own_->follower->listens = 0;
    session.space_.interest.leave(*session.own_->follower);
    counters_.subtract(Counter::FollowersOpen);
}

void Router::tell(Session& session) noexcept {
    if (!session.isTold_) return;
    session.space_.interest.rest();
    session.space_.interest.tell(*session.own_->follower);
}

void Router::tellMore(Session& session) noexcept {
    session.space_.interest.tellMore(*session.own_->follower, session.space_.tree);
}

bool Router::hasMoreToTell(const Session& session) {
    return session.isTold_ && session.own_->follower->stage != Follower::Stage::None;
}

void Router::refresh(Session& session, std::uint64_t losses) noexcept {
    Follower& follower = *session.own_->follower;
    const bool hasLost = std::exchange(follower.lossesSeen, losses) != losses;
    if (!hasLost && !follower.isDue) return;
    Interest::begin(follower);
    counters_.add(Counter::InterestSnapshots);
}

void Router::cancel(Session& session, SubjectView subject) {
    if (session.isTold_ && daemonSubjectOf(subject) == DaemonSubject::Interest) {
        counters_.subtract(Counter::ListensOpen);
        --session.listenCount_;
        if (--session.own_->follower->listens != 0) return;
        ++changes_;
        unfollow(session);
        if (session.own_->listens.size() == 0) dropOwnTree(session);
        return;
    }
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
                         lastFollows_ == from.follows() && lastSubject_.size() == length &&
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
      how_(deliveryMatch(subject)),
      isFromFollower_(from.follows()),
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
    router_.lastFollows_ = isFromFollower_;
}

// A client that reconnects between two turns may have had the message by its former session.
void Router::Match::find(Session& session) {
    if (session.receiver_ == nullptr || session.lastMatch_ == number_) return;
    if (session.joinedAfter_ >= number_) return;
    session.lastMatch_ = number_;
    if (!isFirstTurn_ && !seen_.insert(session.receiver_).second) return;
    if (session.isTold_) session.space_.interest.tell(*session.own_->follower);
    router_.found_.push_back(session.receiver_);
}

void Router::Match::searchOwn(SubjectView subject, std::size_t& steps) {
    while (steps > 0) {
        if (own_) {
            if (searchTree(subject, steps)) own_.reset();
        } else {
            isDone_ = !enterNext(subject);
            if (isDone_) return;
            --steps;
        }
    }
}

// Returns whether it needs no further turn.
bool Router::Match::searchTree(SubjectView subject, std::size_t& steps) {
    const std::size_t given = std::min(steps, own_->stepsLeft);
    std::size_t left = given;
    bool hasHit = false;
    const bool isThrough = own_->search.advance(subject, left, [&hasHit](Session& /*session*/) {
        hasHit = true;
        return false;
    });
    steps -= given - left;
    own_->stepsLeft -= given - left;
    const bool isTooCostly = !hasHit && !isThrough && own_->stepsLeft == 0;
    Session* const owner = own_->own->session;
    if (owner != nullptr && owner->receiver_ != nullptr) {
        const bool follows = owner->follows();
        if (hasHit || (isTooCostly && follows)) {
            find(*owner);
        } else if (isTooCostly) {
            owner->receiver_->dismiss();
        }
    }
    return hasHit || isThrough || isTooCostly;
}

// Goes to the next session's tree. False when there is none.
bool Router::Match::enterNext(SubjectView subject) {
    const auto next = space_.ownTrees.upper_bound(lastOwn_);
    if (next == space_.ownTrees.end()) return false;
    lastOwn_ = next->first;
    OwnTree& own = *next->second;
    if (own.session->lastMatch_ == number_) return true;  // it has been found already
    if (!own.follower) {
        own_ = std::make_unique<OwnSearch>(next->second, how_);
    } else if (!isFromFollower_) {
        // The subject itself costs no search.
        const bool isExact = how_ != SubjectMatch::kCovered && own.tree.find(subject) != 0;
        isExact ? find(*own.session) : void(own_ = std::make_unique<OwnSearch>(next->second, how_));
    }
    return true;
}

Router::Trace::Trace(const Session& from, SubjectView subject)
    : space_(from.space_),
      how_(deliveryMatch(subject)),
      isFromFollower_(from.follows()),
      search_(std::in_place, space_.tree, how_) {}

Router::Trace::~Trace() = default;

std::optional<Router::Trace::Hit> Router::Trace::next(SubjectView subject, std::size_t& steps) {
    while (steps > 0 && !isDone_) {
        const bool isThrough = search_->isDone();
        if (isThrough) {
            isDone_ = !enterNext();
            --steps;
        } else if (const auto hit = search(subject, steps)) {
            return hit;
        }
    }
    return std::nullopt;
}

std::optional<Router::Trace::Hit> Router::Trace::search(SubjectView subject, std::size_t& steps) {
    Session* found = nullptr;
    (void)search_->advance(subject, steps, [&found](Session& session) {
        found = &session;
        return false;
    });
    if (found == nullptr || found->receiver_ == nullptr) return std::nullopt;
    const SubjectView listened = (own_ ? own_->tree : space_.tree).subject(search_->subject());
    const Place place = placeOf(*found, listened);
    return Hit{found->receiver_->number(), listened,
               place.listen != nullptr ? place.listen->number : 0};
}

bool Router::Trace::enterNext() {
    auto next = space_.ownTrees.upper_bound(lastOwn_);
    while (next != space_.ownTrees.end() && next->second->follower && isFromFollower_) ++next;
    if (next == space_.ownTrees.end()) return false;
    lastOwn_ = next->first;
    search_.reset();  // before its tree
    own_ = next->second;
    search_.emplace(own_->tree, how_);
    return true;
}

}  // namespace kvx::rvd
