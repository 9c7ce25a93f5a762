// The way of a question: onData takes it off the bus on the main thread and hands it to the pool; a
// pool thread borrows a connection, answers into the engine's send queue, and gives the connection
// back. Bus objects never leave the main thread: what travels to the pool is the question's text
// and the name of the subject that the answer goes to.

#include "examples/modeld/service/ModelService.h"

#include <chrono>

#include "examples/modeld/service/Log.h"
#include "mom/net/VekText.h"

namespace modeld {

namespace {

// Questions that may wait for a thread, and packets that may wait for the bus before the next
// question is begun: both bound what a flood of questions can take.
constexpr int kMaxWaiting = 1000;
constexpr int kMaxQueuedPackets = 20000;
constexpr unsigned int kRoomPollMs = 20;

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

bool ModelService::start(std::string& reason) {
    for (int i = 0; i < settings_.threads; ++i) {
        Refusal refusal;
        auto store = Store::open(settings_.database, Store::Access::ReadOnly, refusal);
        if (!store) {
            reason = refusal.message;
            return false;
        }
        stores_.push_back(std::move(store));
    }
    pool_ = std::make_unique<CVekServPool>(settings_.threads, this);
    pool_->RSPLaunchThreads(answerOne);
    const char* subject = CVekServiceToSubjectMapper::ServiceEnumToQuerySubject(settings_.type);
    if (engine_.RRNAddService(subject, this) == 1) return true;
    reason = "cannot listen on " + querySubject();
    return false;
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
    auto question = std::make_unique<Question>();
    question->replySubject = replyTo->subject();
    question->version = info.RQIVersion() == VEK_TRANS_V1 ? VEK_TRANS_V1 : VEK_TRANS_V0;
    const kvx::Text text(info.RQIQuery());
    if (text) question->text = text.get();
    if (!text) {
        refuse(engine_, *question, "this is no query");
    } else if (waiting_ >= kMaxWaiting) {
        refuse(engine_, *question, "too many questions are waiting");
    } else if (pool_->RSPAddWorkDetail(question.get()) == 1) {
        ++waiting_;
        static_cast<void>(question.release());
    }
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
    const Verdict verdict = answer(engine_, *store, question);
    returnStore(std::move(store));
    const std::chrono::duration<double, std::milli> spent =
        std::chrono::steady_clock::now() - begin;
    if (verdict.reason.empty()) {
        Log::debug("{} rows in {:.1f} ms: {}", verdict.rows, spent.count(), question.text);
    } else {
        Log::info("refused: {}: {}", verdict.reason, question.text);
    }
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
