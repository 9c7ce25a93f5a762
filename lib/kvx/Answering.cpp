// The way of a question: the main thread takes it off the bus (onData). The active member hands it
// to the pool (QuestionPool), whose thread makes the packets of the answer (Reply); the main thread
// sends them in turn with those of other answers (Answers). A standby holds the question until it
// is too old or the member becomes active. Bus objects never leave the main thread: what travels to
// the pool is the question's text and the name of the subject that the answer goes to.

#include "kvx/Answering.h"

#include <cstring>
#include <utility>

#include "kvx/Conversation.h"
#include "platform/Memory.h"

namespace kvx {

using detail::Asked;

namespace {

constexpr std::chrono::milliseconds kRoomPoll{20};
constexpr std::size_t kMostText = std::size_t{1} << 20U;  // bytes of a question
constexpr const char* kTooLong = "the question is longer than 1 MiB";
constexpr const char* kNoQuery = "this is no query";
constexpr const char* kTooLongAgo = "the changes since then are not held any more";
constexpr const char* kTooMany = "too many questions are waiting";

}  // namespace

void Service::Answering::BegunListener::onData(const char*, RvSender*, const RvDatum& data,
                                               RvListener*) {
    if (const auto inbox = conversation::readInbox(data)) held_.forget(*inbox);
}

bool Service::Answering::open() {
    answers_.isCrowded = [this] {
        return pool_ ? pool_->isCrowded() : packetsWaiting() > options_.mostWaiting;
    };
    return answers_.start();
}

bool Service::Answering::start(const std::string& querySubject,
                               std::function<void(const Question&, Reply&)> answer) {
    const Text subject(engine_.RRNDomainSubj(querySubject.c_str()));
    begunSubject_ = conversation::begunSubject(subject ? subject.get() : "");
    answer_ = std::move(answer);
    if (options_.threads > 0) startPool();
    return (options_.group.empty() ||
            engine_.RRNAddExService(begunSubject_.c_str(), &begunListener_) == kOk) &&
           engine_.RRNAddService(querySubject.c_str(), this) == kOk;
}

void Service::Answering::startPool() {
    packer_.emplace();
    pool_.emplace(options_.threads, options_.oldestQuestion,
                  [this](const Asked& asked, detail::Turns::Turn& turn) {
                      waitForRoom();
                      const auto isTooLate = [this, &asked] {
                          if (!pool_->isTooOld(asked)) return false;
                          pool_->countDropped();
                          return true;
                      };
                      const Reply::State::Worker worker{turn, *packer_, isTooLate};
                      answerQuestion(asked, &worker);
                  });
}

void Service::Answering::onData(const char* subject, RvSender* replyTo, const RvDatum& data,
                                RvListener* listener) {
    if (replyTo == nullptr || isEnding_) return;
    engine_.REDoAndSend([&] { take(subject, *replyTo, data, listener); });
}

void Service::Answering::take(const char* subject, const RvSender& replyTo, const RvDatum& data,
                              RvListener* listener) {
    CVekQryInfo info(subject, nullptr, data, listener);
    Asked asked{.text = {},
                .replySubject = replyTo.subject(),
                .version = info.RQIVersion() == VEK_TRANS_V1 ? VEK_TRANS_V1 : VEK_TRANS_V0,
                .window = conversation::readWindow(data)};
    if (isNumbered_) asked.since = readHistoryQuestion(data);
    if (asked.since) return answerOrHold(std::move(asked));
    const Text text(info.RQIQuery());
    if (!text) return isActing() ? refuse(asked, kNoQuery) : void();
    const std::size_t length = strnlen(text.get(), kMostText + 1);
    if (length > kMostText) return isActing() ? refuse(asked, kTooLong) : void();
    asked.text.assign(text.get(), length);
    answerOrHold(std::move(asked));
}

// Whether it may answer: active, and not lately stopped for so long that another may be.
bool Service::Answering::isActing() {
    return engine_.REIsActive() == TRUE && engine_.REIsFresh() == TRUE;
}

void Service::Answering::answerOrHold(Asked asked) {
    if (isActing()) return answerLater(asked);
    held_.hold(std::move(asked), std::chrono::steady_clock::now());
}

void Service::Answering::takeHeld() {
    if (held_.size() == 0 || isEnding_ || !isActing()) return;
    const auto held = held_.take(std::chrono::steady_clock::now());
    takenFromHeld_ += held.size();
    for (const Asked& asked : held) answerLater(asked);
}

bool Service::Answering::beginEnding() {
    const bool isFirst = !isEnding_.exchange(true);
    answers_.endUnbegun();
    return isFirst;
}

void Service::Answering::end() {
    isEnding_ = true;
    answers_.close();
    pool_.reset();
}

Service::Statistics Service::Answering::statistics() const {
    return {.answered = answered_,
            .held = takenFromHeld_,
            .refused = refused_,
            .dropped = pool_ ? pool_->dropped() : 0,
            .abandoned = answers_.abandoned(),
            .waiting = pool_ ? pool_->waiting() : 0};
}

// Without a word when even that would have to wait too long.
void Service::Answering::refuse(const Asked& asked, const char* why) {
    ++refused_;
    if (packetsWaiting() > 2 * options_.mostWaiting) return;
    Reply::State refusal(answers_.begin(asked.replySubject, asked.window), asked.version, nullptr,
                         {});
    Reply(refusal).refuse(why);
    refusal.finish();
}

void Service::Answering::answerLater(const Asked& asked) {
    if (pool_) {
        if (!pool_->add(asked)) refuse(asked, kTooMany);
    } else if (packetsWaiting() > options_.mostWaiting) {
        refuse(asked, kTooMany);
    } else {
        answerQuestion(asked, nullptr);
    }
}

int Service::Answering::packetsWaiting() {
    return engine_.RESendQueueLength() + static_cast<int>(answers_.packets());
}

void Service::Answering::waitForRoom() {
    while (!isEnding_ && packetsWaiting() > options_.mostWaiting) {
        VekSleep(static_cast<unsigned>(kRoomPoll.count()));
    }
}

void Service::Answering::answerQuestion(const Asked& asked, const Reply::State::Worker* worker) {
    if (isEnding_) return;
    ++answered_;
    std::function<void()> tellOthers;
    if (!options_.group.empty()) {
        tellOthers = [&] {
            engine_.REAddToSendQueue(begunSubject_.c_str(),
                                     new RvMsg(conversation::begunMessage(asked.replySubject)),
                                     nullptr, FALSE);
        };
    }
    Reply::State state(answers_.begin(asked.replySubject, asked.window), asked.version, worker,
                       std::move(tellOthers));
    Reply reply(state);
    if (asked.since) {
        answerHistory(*asked.since, state);
        return state.finish();
    }
    try {
        answer_({asked.text, asked.replySubject}, reply);
    } catch (const std::exception& error) {
        reply.refuse(error.what());
    } catch (...) {
        reply.refuse("the service failed");
    }
    state.finish();
}

void Service::Answering::answerHistory(const Stamp& since, Reply::State& state) const {
    const auto notices = changes_.since(since);
    if (!notices) return Reply(state).refuse(kTooLongAgo);
    for (const Changes::Notice& notice : *notices) {
        if (!state.add(notice)) return;
    }
}

}  // namespace kvx
