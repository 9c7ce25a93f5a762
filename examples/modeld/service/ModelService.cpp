// The path of a question: onData receives it on the main thread. The active member queues it in the
// pool; a pool thread takes a database connection, answers into the engine's send queue, and
// returns the connection. A standby holds it until it is too old or the member becomes active. Bus
// objects stay on the main thread: the pool gets only the question's text and the subject of the
// answer.
//
// A question may be answered twice, by a member that ends and by its successor, but only if the
// answer is one packet: see kvx/HeldQuestions.h.

#include "examples/modeld/service/ModelService.h"

#include <chrono>
#include <cstring>
#include <utility>

#include "examples/modeld/oql/Parse.h"
#include "examples/modeld/service/Log.h"
#include "platform/Memory.h"
#include "platform/Text.h"

namespace modeld {

namespace {

// The most questions that wait for a thread, and the most packets in the send queue when a question
// is begun: both bound the memory of a flood of questions.
constexpr int kMaxWaiting = 1000;
constexpr int kMaxQueuedPackets = 20000;
constexpr unsigned int kRoomPollMs = 20;
constexpr std::size_t kMostLogged = 200;  // bytes of a question in a line of the log

// A text that is too long is refused later; only enough of it is kept to detect that.
std::string textOf(const char* query) {
    return {query, strnlen(query, oql::kMaxQueryBytes + 1)};
}

void logAnswer(const Question& question, const Verdict& verdict, double milliseconds) {
    const std::string text = kvx::excerpt(question.text, kMostLogged);
    if (verdict.reason.empty()) {
        Log::debug("{} rows in {:.1f} ms: {}", verdict.rows, milliseconds, text);
    } else if (verdict.isProbe) {
        Log::debug("refused: {}: {}", verdict.reason, text);
    } else {
        Log::info("refused: {}: {}", verdict.reason, text);
    }
}

}  // namespace

ModelService::ModelService(CVekEngine& engine, Settings settings)
    : engine_(engine), settings_(std::move(settings)) {}

ModelService::~ModelService() {
    stopping_ = true;
    if (!pool_) return;
    pool_->RSPWorkLock();
    while (void* item = pool_->RSPTakeWorkDetail()) {
        const std::unique_ptr<Question> unanswered(static_cast<Question*>(item));
    }
    pool_->RSPWorkUnLock();
}

std::string ModelService::querySubject() const {
    const kvx::Text subject(engine_.RRNDomainSubj(
        CVekServiceToSubjectMapper::ServiceEnumToQuerySubject(settings_.type)));
    return subject ? subject.get() : "";
}

bool ModelService::openStores(std::string& reason) {
    for (int i = 0; i < settings_.threads; ++i) {
        Refusal refusal;
        auto store = Store::open(settings_.database, Store::Access::ReadOnly, refusal);
        if (!store) {
            reason = refusal.message;
            return false;
        }
        stores_.push_back(std::move(store));
    }
    return true;
}

bool ModelService::start(std::string& reason) {
    if (!openStores(reason)) return false;
    if (engine_.RESendPromptly() != 1) Log::warning("answers wait for the tick of the send queue");
    pool_ = std::make_unique<CVekServPool>(settings_.threads, this);
    pool_->RSPLaunchThreads(answerOne);
    const std::string begun = kvx::begunSubject(querySubject());
    const char* subject = CVekServiceToSubjectMapper::ServiceEnumToQuerySubject(settings_.type);
    if ((settings_.standalone || engine_.RRNAddExService(begun.c_str(), &begunListener_) == 1) &&
        engine_.RRNAddService(subject, this) == 1) {
        return true;
    }
    reason = "cannot listen on " + querySubject();
    return false;
}

void ModelService::followRole() {
    engine_.RESetRoleCallback([this](bool active) { roleChanged(active); });
    roleChanged(engine_.REIsActive() == TRUE);
}

void ModelService::stopAnswering() {
    engine_.RESetRoleCallback({});
    gate_.close();
}

void ModelService::roleChanged(bool active) {
    if (!active) {
        Log::info("standing by on {} ({})", querySubject(), settings_.membership);
        return;
    }
    const std::chrono::duration<double> age = std::chrono::steady_clock::now() - begin_;
    Log::info("answering on {} (active after {:.1f} s)", querySubject(), age.count());
    auto questions = held_.take(std::chrono::steady_clock::now());
    if (!questions.empty()) Log::info("questions held meanwhile: {}", questions.size());
    for (Question& question : questions) answerLater(std::move(question));
}

void ModelService::onData(const char* subject, RvSender* replyTo, const RvDatum& data,
                          RvListener* listener) {
    if (replyTo == nullptr) {
        Log::warning("a question without a reply subject came on {}", subject);
        return;
    }
    int status = 0;
    CVekQryInfo info(subject, engine_.RRNNewSender(&status, replyTo->subject(), nullptr), data,
                     listener);
    Question question;
    question.replySubject = replyTo->subject();
    question.version = info.RQIVersion() == VEK_TRANS_V1 ? VEK_TRANS_V1 : VEK_TRANS_V0;
    if (!settings_.standalone) question.begunSubject = kvx::begunSubject(querySubject());
    const kvx::Text text(info.RQIQuery());
    const bool active = engine_.REIsActive() == TRUE;
    if (text) question.text = textOf(text.get());
    if (!text) {
        if (active) refuseNow(question, "this is no query");
    } else if (active) {
        answerLater(std::move(question));
    } else {
        held_.hold(std::move(question), std::chrono::steady_clock::now());
    }
}

void ModelService::BegunListener::onData(const char*, RvSender*, const RvDatum& data, RvListener*) {
    held_.forget(kvx::readBegun(data));
}

void ModelService::answerLater(Question question) {
    if (waiting_.fetch_add(1) >= kMaxWaiting) {
        --waiting_;
        refuseNow(question, "too many questions are waiting");
        return;
    }
    auto item = std::make_unique<Question>(std::move(question));
    if (pool_->RSPAddWorkDetail(item.get()) == 1) {
        static_cast<void>(item.release());
    } else {
        --waiting_;
    }
}

void ModelService::refuseNow(const Question& question, const std::string& reason) {
    refuse(engine_, question, reason);
}

void ModelService::answerOne(void* item, void* service) {
    const std::unique_ptr<Question> question(static_cast<Question*>(item));
    auto* self = static_cast<ModelService*>(service);
    self->answerQuestion(*question);
    --self->waiting_;
}

void ModelService::answerQuestion(const Question& question) {
    waitForRoomInSendQueue();
    const auto begin = std::chrono::steady_clock::now();
    auto store = borrowStore();
    const Verdict verdict = answer(engine_, *store, question, gate_);
    returnStore(std::move(store));
    const std::chrono::duration<double, std::milli> spent =
        std::chrono::steady_clock::now() - begin;
    logAnswer(question, verdict, spent.count());
    if (verdict.isProbe) return;
    rows_ += verdict.rows;
    ++(verdict.reason.empty() ? answered_ : refused_);
}

ModelService::Statistics ModelService::statistics() const {
    return {answered_, refused_, rows_, waiting_};
}

void ModelService::waitForRoomInSendQueue() const {
    while (!stopping_ && engine_.RESendQueueLength() > kMaxQueuedPackets) VekSleep(kRoomPollMs);
}

std::unique_ptr<Store> ModelService::borrowStore() {
    const std::lock_guard guard(storesMutex_);
    auto store = std::move(stores_.back());
    stores_.pop_back();
    return store;
}

void ModelService::returnStore(std::unique_ptr<Store> store) {
    const std::lock_guard guard(storesMutex_);
    stores_.push_back(std::move(store));
}

}  // namespace modeld
