// From the daemon: a message that somebody elsewhere wants gets its number and joins the open
// frame, which is published when the turn ends. What only one host wants crosses in one frame,
// whatever the subjects; else a message on another subject ends the frame too.
//
// From the engine: `Receiver` decides what is new and what is missing; what is new goes to the
// daemon as it came.
//
// A subject of this host is subscribed at the engine before the others are told of it, and they are
// told before any message that follows: all of it leaves by one connection, in that order.

#include "rvbridge/Bridge.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "platform/Memory.h"
#include "rv/error/rvAdvisory.h"
#include "rv/message/WireFormat.h"
#include "rv/message/rvmsg.h"
#include "rv/wire/ControlMessage.h"
#include "rvbridge/ControlMessage.h"
#include "rvbridge/HostsReport.h"

namespace kvx::bridge {

namespace {

constexpr const char* kInterest = "_RVD.INTEREST";
constexpr const char* kHosts = "_RVD.HOSTS";
constexpr std::size_t kControlHead = 1'024;  // bytes of a frame besides the payload, at most
constexpr std::size_t kSomeGone = 1'000;     // subjects
constexpr std::size_t kManyGone = 100'000;
constexpr int kHostsPause = 10;  // times of what an answer takes
constexpr int kMarksPerTick = 4'000;
static_assert(Engine::kLeastBytes >= FrameWriter::kLeastLimit);

Microseconds now() {
    using std::chrono::steady_clock;
    return std::chrono::duration_cast<std::chrono::microseconds>(
               steady_clock::now().time_since_epoch())
        .count();
}

std::uint64_t randomNumber() {
    std::random_device device;
    return (static_cast<std::uint64_t>(device()) << 32U) | device();
}

std::string keyOf(SubjectView subject) {
    return std::string(subject.encoded());
}

SubjectView viewOf(const std::string& key) {
    return SubjectView::trusted(key.data());
}

// Whether some subject fits both.
bool overlap(SubjectView one, SubjectView other) {
    const unsigned shared = std::min(one.count(), other.count());
    const auto hasTail = [](SubjectView subject, unsigned at) {
        return at + 1 == subject.count() && subject[at] == kAnyTrailingElements;
    };
    for (unsigned i = 0; i < shared; ++i) {
        if (hasTail(one, i) || hasTail(other, i)) return true;
        const auto a = one[i];
        const auto b = other[i];
        if (a != b && a != kAnyElement && b != kAnyElement) return false;
    }
    return one.count() == other.count();
}

// Whether one of the patterns lets a listen to `subject` cross.
bool mayConcern(const std::vector<Subject>& patterns, SubjectView subject) {
    return patterns.empty() || subject.first() == kInboxElement ||
           std::ranges::any_of(patterns, [subject](const Subject& pattern) {
               return overlap(pattern.view(), subject);
           });
}

// Whether one of them lets a message on it cross: all that the message reaches must fit the
// pattern.
bool isWithin(const std::vector<Subject>& patterns, SubjectView subject) {
    return patterns.empty() || subject.first() == kInboxElement ||
           std::ranges::any_of(patterns, [subject](const Subject& pattern) {
               return covers(pattern.view(), subject);
           });
}

}  // namespace

Bridge::Bridge(rvevm_Manager manager, const Options& options, const SpaceName& space,
               const BridgeIdentity& identity, Engine& engine, platform::Log& log,
               BridgeOwner& owner)
    : manager_(manager),
      options_(options),
      subjects_(space.service.empty() ? wire::kDefaultService : space.service, space.network),
      engine_(engine),
      log_(log),
      owner_(owner),
      daemon_(manager, options.daemon, space.service, space.network, *this),
      reports_(daemon_),
      exchange_(identity, *this),
      routes_(exchange_, randomNumber()),
      sender_(randomNumber()),
      receiver_(randomNumber(), *this),
      writer_(identity.host, identity.epoch),
      control_(identity.host, identity.epoch) {}

Bridge::~Bridge() {
    if (turn_ != nullptr) rvevm_RemoveTimer(manager_, turn_);
}

void Bridge::start() {
    engine_.subscribe(subjects_.controlAll());
    engine_.subscribe(subjects_.controlTo(options_.host));
    engine_.subscribe(subjects_.wildcardMessages());
    engine_.subscribe(subjects_.directTo(options_.host));
    daemon_.start();
}

void Bridge::stop() {
    if (hasStarted_) exchange_.stop();
    endTurn();
}

// ------------------------------------------------------------------ the daemon

void Bridge::onDaemonUp() {
    lastWhy_.clear();
    log_.info("the daemon at " + options_.daemon + " is there, session " + daemon_.name());
    for (const char* subject : {kInterest, kHosts}) {
        (void)daemon_.listen(*Subject::fromText(subject));
    }
    for (const auto& subject : others_) tellDaemon(viewOf(subject), true);
}

void Bridge::onDaemonDown(const std::string& why) {
    if (std::exchange(lastWhy_, why) != why) {
        log_.warning("no daemon at " + options_.daemon + ": " + why);
    }
    owed_.clear();
    reports_.clear();
    if (own_.empty()) return;
    while (!own_.empty()) removeOwn(Subject(viewOf(own_.begin()->first)));
    endTurnSoon();
}

void Bridge::onDaemonMessage(wire::Bytes message) {
    const wire::Routing routing = wire::readRouting(message);
    const auto subject = SubjectView::parse(routing.subject.data(), routing.subject.size());
    if (routing.type != wire::MessageType::Data || !subject) return;
    if (ControlMessage::isReserved(*subject)) {
        const std::string text = subject->text();
        if (text == kInterest) hearInterest(message);
        if (text == kHosts) answerHosts(message);
        if (text == advisory::kDataLossSubject) hearDropped(message);
        return;
    }
    if (!hasStarted_ || !isWithin(options_.exports, *subject)) return;
    pass(*subject, message);
}

// In the order of the fields.
void Bridge::hearInterest(Bytes message) {
    rvmsg_Type type = 0;
    rvmsg_Size size = 0;
    rvmsg_Data data = nullptr;
    if (rvmsg_GetRaw(message.data(), wire::field::kData, &type, &size, &data) != 0) return;
    if (type != RVMSG_MSG) return;
    const auto onField = [](const char* name, rvmsg_Type fieldType, rvmsg_Size fieldSize,
                            rvmsg_Data value, void* closure) {
        static_cast<Bridge*>(closure)->hearInterestField(name, fieldType, fieldSize, value);
        return 0;
    };
    (void)rvmsg_Iterate(data, nullptr, onField, this);
    endTurnSoon();
}

void Bridge::hearInterestField(std::string_view name, rvmsg_Type type, rvmsg_Size size,
                               rvmsg_Data value) {
    if (type == RVMSG_STRING) {
        const std::string_view text(static_cast<const char*>(value));
        if (name == "op" && text == "complete") return completeSnapshot();
        if (name != "daemon") return;
        ++snapshot_;
        exchange_.beginSnapshot(text);
    } else if (type == RVMSG_SUBJECT) {
        const auto subject = SubjectView::parse(value, size);
        if (!subject || ControlMessage::isReserved(*subject)) return;
        if (name == "add") addOwn(*subject);
        if (name == "remove") removeOwn(*subject);
    }
}

// What the daemon has dropped from our queue is lost on its way to the others.
void Bridge::hearDropped(Bytes message) {
    const auto data = findField(message, wire::field::kData);
    const auto dropped = data ? findField(data->bytes(), "dropped") : std::nullopt;
    if (!hasStarted_ || !dropped) return;
    endFrame();
    std::optional<SubjectView> subject;
    std::uint64_t sum = 0;
    FieldCursor fields(dropped->bytes());
    WireField field;
    while (fields.next(field) == FieldCursor::Step::kField) {
        if (field.type == RVMSG_SUBJECT) subject = SubjectView::parse(field.data, field.size);
        if (field.type != RVMSG_UINT || field.size != sizeof(std::uint64_t) || !subject) continue;
        if (ControlMessage::isReserved(*subject) || !isWithin(options_.exports, *subject)) continue;
        if (!routes_.find(*subject, now()).isWanted()) continue;
        sender_.skip(*subject, loadBig64(field.data), LossCause::QueueFull);
        sum += loadBig64(field.data);
    }
    if (sum == 0) return;
    log_.warning("the daemon has dropped " + std::to_string(sum) + " messages for other hosts");
    endTurnSoon();
}

// What the snapshot has not named is gone.
void Bridge::completeSnapshot() {
    std::vector<std::string> gone;
    for (const auto& [key, own] : own_) {
        if (own.snapshot != snapshot_) gone.push_back(key);
    }
    for (const auto& key : gone) removeOwn(viewOf(key));
    exchange_.complete();
    isComplete_ = true;
    joinWhenComplete();
}

void Bridge::addOwn(SubjectView subject) {
    const auto [at, isNew] = own_.try_emplace(keyOf(subject));
    at->second.snapshot = snapshot_;
    if (isNew) {
        at->second.isImported = mayConcern(options_.imports, subject);
        at->second.since = receiver_.subscriptionsChange();
        if (at->second.isImported) {
            (void)imported_.add(subject, &at->second);
            engine_.subscribe(subjects_.subscription(subject));
        }
    }
    if (at->second.isImported) exchange_.add(subject);
}

void Bridge::removeOwn(SubjectView subject) {
    const auto found = own_.find(keyOf(subject));
    if (found == own_.end()) return;
    if (found->second.isImported) {
        exchange_.remove(subject);
        engine_.unsubscribe(subjects_.subscription(subject));
        (void)imported_.remove(subject, &found->second);
        receiver_.forget(subject);
    }
    own_.erase(found);
    ++gone_;
}

void Bridge::joinWhenComplete() {
    if (hasStarted_ || !isComplete_ || !isEngineUp_) return;
    hasStarted_ = true;
    exchange_.start(now());
}

// ------------------------------------------------------------------ to the engine

void Bridge::pass(SubjectView subject, Bytes message) {
    Routes::Route& route = routes_.find(subject, now());
    if (!route.isWanted()) return;
    route.count(message.size());
    const std::string_view host = route.direct();
    const bool isSame = subject.encoded() == run_;
    if (host != openHost_ || (!isSame && host.empty())) endFrame();
    if (sender_.hasDropped() && runs_.empty() && !sendMarksOfDropped()) {
        (void)sender_.next(subject);
        return sender_.dropped(subject, LossCause::QueueFull);
    }
    const MessageNumber number = sender_.next(subject);
    const bool fits = writer_.fitsWhole(message.size());
    if (!fits || (!runs_.empty() && !append(subject, number, message))) endFrame();
    if (runs_.empty()) {
        openHost_ = host;
        writer_.setKnowledge(host.empty() ? std::nullopt
                                          : std::optional(exchange_.knowledgeOf(host)));
        run_ = subject.encoded();
        openAt_ = host.empty() ? subjects_.publication(subject) : subjects_.direct(host, subject);
        if (!fits) return sendParts(subject, number, message);
        (void)writer_.append(number, message);
        runs_.push_back(run_);
    }
    endTurnSoon();
}

// Appends to the open frame. False, with nothing changed, when there is no room.
bool Bridge::append(SubjectView subject, const MessageNumber& number, Bytes message) {
    if (subject.encoded() == run_) return writer_.append(number, message);
    if (!writer_.appendRun(subject, number, message)) return false;
    run_ = subject.encoded();
    runs_.push_back(run_);
    return true;
}

void Bridge::sendParts(SubjectView subject, const MessageNumber& number, Bytes message) {
    exchange_.flush();
    bool isSent = true;
    writer_.parts(number, message, [&](Bytes part) { isSent = isSent && publish(openAt_, part); });
    if (!isSent) sender_.dropped(subject, LossCause::QueueFull);
}

// Publishes the open frame.
void Bridge::endFrame() {
    if (runs_.empty()) return;
    exchange_.flush();
    const bool isSent = publish(openAt_, writer_.open());
    writer_.clear();
    for (const auto& subject : runs_) {
        if (!isSent) sender_.dropped(viewOf(subject), LossCause::QueueFull);
    }
    runs_.clear();
}

void Bridge::endTurnSoon() {
    const auto end = [](void*, void* closure, int, void*) {
        auto& self = *static_cast<Bridge*>(closure);
        self.turn_ = nullptr;
        self.endTurn();
    };
    if (turn_ == nullptr && rvevm_AddTimer(manager_, &turn_, 0, end, this) != 0) endTurn();
}

void Bridge::endTurn() {
    endFrame();
    if (hasStarted_) exchange_.flush();
    if (sender_.hasDropped()) (void)sendMarksOfDropped();
    tellOwed();
    reports_.tell();
}

// Publishes one, if one is needed and there is room.
bool Bridge::sendMark() {
    if (!engine_.hasRoom()) return false;
    return sender_.takeMark(
        [this](SubjectView subject, const MessageNumber& next, LossCause cause) {
            (void)publish(subjects_.publication(subject), control_.mark(next, cause));
        });
}

bool Bridge::sendMarksOfDropped() {
    while (sender_.hasDropped() && sendMark()) {
    }
    return !sender_.hasDropped();
}

void Bridge::sendMarks() {
    endFrame();
    for (int left = kMarksPerTick; left > 0 && sendMark(); --left) {
    }
    if (sender_.needsMarks()) return;
    for (const auto& [host, after] : std::exchange(marksWantedBy_, {})) {
        exchange_.marked(host, after);
    }
}

void Bridge::marksWanted(std::string_view host, std::uint64_t after) {
    const auto [at, isNew] = marksWantedBy_.try_emplace(std::string(host), after);
    if (!isNew && at->second <= after) return;
    at->second = after;
    sender_.wantMarks(after);
}

bool Bridge::publish(const std::string& subject, Bytes frame) {
    return engine_.publish(subject, {frame.begin(), frame.end()});
}

// ------------------------------------------------------------------ the exchange

void Bridge::sendToAll(std::uint64_t number, Bytes control) {
    MessageNumber place = sender_.last();
    place.number = number;
    (void)publish(subjects_.controlAll(), control_.control(control, place));
}

void Bridge::sendTo(std::string_view host, Bytes control) {
    (void)publish(subjects_.controlTo(host), control_.control(control, sender_.last()));
}

// What it has no room for is told later, unless the opposite is.
void Bridge::tellDaemon(SubjectView subject, bool isListen) {
    if (!owed_.empty() && owed_.erase(keyOf(subject)) != 0) return;
    const bool isTold = isListen ? daemon_.listen(subject) : daemon_.cancel(subject);
    if (!isTold && daemon_.isUp()) owed_.insert(keyOf(subject));
}

void Bridge::tellOwed() {
    while (!owed_.empty()) {
        const std::string& key = *owed_.begin();
        const bool isTold =
            others_.contains(key) ? daemon_.listen(viewOf(key)) : daemon_.cancel(viewOf(key));
        if (!isTold) return;
        owed_.erase(owed_.begin());
    }
}

void Bridge::listen(SubjectView subject) {
    if (!others_.insert(keyOf(subject)).second) return;
    tellDaemon(subject, true);
    if (options_.isVerbose) log_.debug("others listen to " + subject.text());
}

void Bridge::cancel(SubjectView subject) {
    if (others_.erase(keyOf(subject)) == 0) return;
    ++gone_;
    tellDaemon(subject, false);
    if (options_.isVerbose) log_.debug("nobody else listens to " + subject.text());
}

void Bridge::hostUp(const HostState& host) {
    log_.info("host " + host.name + " has joined");
}

void Bridge::hostDown(const HostState& host) {
    log_.info("host " + host.name + " is gone");
    receiver_.hostDown(host.name, host.epoch);
    routes_.interestChanged();
}

void Bridge::refused(const std::string& reason) {
    owner_.onBridgeRefused(reason);
}

void Bridge::ready() {
    owner_.onBridgeReady();
}

// ------------------------------------------------------------------ from the engine

void Bridge::onEngineUp() {
    isEngineUp_ = true;
    writer_.setLimit(engine_.mostBytes());
    control_.setLimit(engine_.mostBytes());
    exchange_.setLimit(engine_.mostBytes() - kControlHead);
    if (!hasStarted_) return joinWhenComplete();
    receiver_.fault(LossCause::EngineGone);
    exchange_.reconnected(now());
}

void Bridge::onEngineDown() {
    isEngineUp_ = false;
    sender_.engineWasGone();
}

bool Bridge::onEngineMessage(std::string_view subject, Bytes bytes) {
    if (!subjects_.has(subject)) return false;
    const auto frame = readFrame(bytes);
    const auto at =
        frame && frame->kind != FrameKind::Control ? subjects_.subjectOf(subject) : std::nullopt;
    if (at) {
        take(*frame, *at);
    } else if (frame && frame->kind == FrameKind::Control) {
        exchange_.receive(now(), *frame);
        routes_.interestChanged();
        endTurnSoon();
    } else {
        ++unreadable_;
    }
    return true;
}

void Bridge::take(Frame frame, SubjectView subject) {
    do {
        const bool isOurs = isSubscribedTo(subject) && isWithin(options_.imports, subject);
        if (isOurs) receiver_.take(frame, subject);
    } while (nextRun(frame, subject));
}

// Not subscribed: what the engine still delivers of a subscription that has ended, and inboxes of
// others by a pattern. Messages on wildcard subjects come to every bridge.
bool Bridge::isSubscribedTo(SubjectView subject) {
    return isSubscribedSince(~std::uint64_t{0}, subject);
}

bool Bridge::isSubscribedSince(std::uint64_t change, SubjectView subject) {
    if (subject.hasWildcards()) return true;
    bool isFound = false;
    (void)imported_.match(subject, deliveryMatch(subject), [&](const Own& own) {
        isFound = own.since <= change;
        return !isFound;
    });
    return isFound;
}

bool Bridge::message(SubjectView subject, Bytes message) {
    const wire::Routing routing = wire::readRouting(message);
    const auto routed = SubjectView::parse(routing.subject.data(), routing.subject.size());
    wire::Envelope envelope;
    const bool isData = routing.type == wire::MessageType::Data && routed &&
                        routed->encoded() == subject.encoded() &&
                        !ControlMessage::isReserved(subject) &&
                        wire::openEnvelope(message, envelope) == 0;
    if (!isData) {
        ++unreadable_;
        return true;
    }
    if (!daemon_.isUp()) return true;
    // What is lost is told before what follows.
    if (reports_.isTold(subject) && daemon_.send(message)) return true;
    reports_.add(subject, 1, LossCause::QueueFull);
    return false;
}

void Bridge::lost(std::string_view host, SubjectView subject, std::uint64_t messages,
                  LossCause cause) {
    log_.warning(std::to_string(messages) + " messages of host " + std::string(host) + " on " +
                 subject.text() + " are lost: " + textOf(cause));
    if (!daemon_.isUp()) return;
    reports_.add(subject, messages, cause);
    reports_.tell();
}

bool Bridge::heardAllOf(const Frame& frame, SubjectView subject) {
    return exchange_.heardAllOf(frame.host, frame.epoch, frame.first.keyEpoch, subject);
}

// Everybody hears a mark, but maybe not the messages behind it, which may go to one host.
bool Bridge::mayBegin(const Frame& frame, SubjectView subject) {
    return frame.knowledge ? exchange_.wasKnown(*frame.knowledge, subject) : !frame.isMark();
}

void Bridge::tick() {
    if (unreadable_ != 0) {
        log_.warning(std::to_string(std::exchange(unreadable_, 0)) +
                     " messages of the engine cannot be read");
    }
    if (!hasStarted_) return;
    const Microseconds at = now();
    if (at >= quietAt_) {
        quietAt_ = at + Exchange::kBeat;
        sender_.wantMarksOfQuiet();
    }
    exchange_.tick(at);
    returnMemory();
    if (isEngineUp_) sendMarks();
    endTurnSoon();
}

// The allocator keeps what many small blocks were freed from. The engine's thread frees its part a
// little later.
void Bridge::returnMemory() {
    if (now() - lookedAt_ < Exchange::kBeat) return;
    lookedAt_ = now();
    const bool isQuiet = std::exchange(goneBefore_, gone_) == gone_;
    if (gone_ < (isQuiet ? kSomeGone : kManyGone)) return;
    gone_ = isQuiet ? 0 : kSomeGone;
    platform::returnFreedMemory();
}

// ------------------------------------------------------------------ who is joined

void Bridge::answerHosts(Bytes message) {
    std::array<double, 2> scratch{};
    rvmsg_Type type = 0;
    rvmsg_Size size = 0;
    rvmsg_Data reply = nullptr;
    if (rvmsg_Get(scratch.data(), message.data(), wire::field::kReturn, &type, &size, &reply) !=
            0 ||
        type != RVMSG_STRING) {
        return;
    }
    const auto subject = Subject::fromText(static_cast<const char*>(reply));
    if (!subject) return;
    // Many questions cost no more than a part of our time.
    const Microseconds at = now();
    if (at >= hostsUntil_) {
        hostsText_ = hostsReport(exchange_, receiver_, routes_, isEngineUp_);
        hostsUntil_ = now() + kHostsPause * (now() - at);
    }
    (void)daemon_.send(wire::buildData(subject->view().bytes(), nullptr, 0,
                                       {RVMSG_STRING, 0, hostsText_.c_str()}));
}

}  // namespace kvx::bridge
