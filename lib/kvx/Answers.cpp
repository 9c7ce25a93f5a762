#include "kvx/Answers.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <utility>
#include <vector>

#include "kvx/ReplyState.h"

namespace kvx::detail {

using Clock = std::chrono::steady_clock;

namespace {

constexpr std::uint32_t kAll = std::numeric_limits<std::uint32_t>::max();
constexpr std::size_t kHalf = Answers::kMostAhead / 2;
constexpr const char* kNotTaken = "the rows were not taken in time";

}  // namespace

// --- One answer --------------------------------------------------------------------------------

/// One packet in the hands of the engine. What cannot be sent makes the answer worthless.
class OpenAnswer::Item : public CVekSendQueueItem {
  public:
    Item(std::shared_ptr<OpenAnswer> answer, std::unique_ptr<RvMsg> packet)
        : CVekSendQueueItem(answer->replySubject_.c_str(), packet.release(), nullptr,
                            &answer->owner_.engine_, 0),
          answer_(std::move(answer)) {}

    int RSQIDeQueueIt() override {
        Answers& owner = answer_->owner_;
        // It lives only here, on the main thread: the answer may die on another.
        const std::unique_ptr<RvSender> sender(
            owner.engine_.m_session->newSender(m_subject, owner.inbox_->subject()));
        if (sender && sender->send(*m_datum) == RvStatus(0)) return kOk;
        const std::lock_guard lock(owner.mutex_);
        owner.end(*answer_);
        return kNotSent;
    }

  private:
    const std::shared_ptr<OpenAnswer> answer_;
};

OpenAnswer::OpenAnswer(Answers& owner, std::string replySubject,
                       std::optional<std::uint32_t> window)
    : owner_(owner),
      replySubject_(std::move(replySubject)),
      isStreamed_(window.has_value()),
      allowed_(window.value_or(kAll)),
      moved_(Clock::now()) {}

bool OpenAnswer::isWanted() const {
    const std::lock_guard lock(owner_.mutex_);
    return !isEnded_;
}

void OpenAnswer::add(std::vector<std::unique_ptr<RvMsg>> packets, bool areLast) {
    bool isNew = false;
    {
        const std::lock_guard lock(owner_.mutex_);
        if (isEnded_) return;
        owner_.packets_ += packets.size();
        std::ranges::move(packets, std::back_inserter(packets_));
        isFinished_ = areLast;
        isNew = owner_.makeReady(*this);
    }
    if (isNew) owner_.engine_.REWakeSendSource();
}

void OpenAnswer::drop() {
    const std::lock_guard lock(owner_.mutex_);
    owner_.end(*this);
}

bool OpenAnswer::hasRoom(std::size_t most) const {
    return packets_.size() < most && (isTaken_ || sent_ + packets_.size() < allowed_);
}

bool OpenAnswer::isFull() const {
    const std::lock_guard lock(owner_.mutex_);
    return isStreamed_ && !hasRoom(Answers::kMostAhead);
}

void OpenAnswer::waitForRoom() {
    std::unique_lock lock(owner_.mutex_);
    changed_.wait(lock, [this] { return isEnded_ || hasRoom(kHalf + 1); });
}

// --- All answers -------------------------------------------------------------------------------

Answers::~Answers() {
    engine_.RESetSendSource({});
}

bool Answers::start() {
    inbox_.reset(engine_.m_session->newInbox(this, nullptr));
    int status = kOk;
    look_.reset(engine_.RRNNewTimer(&status, static_cast<unsigned long>(kLook.count()), rv_TRUE,
                                    this, nullptr));
    if (!inbox_ || !look_) return false;
    looked_ = Clock::now();
    engine_.RESetSendSource([this] { return next(); });
    return true;
}

std::shared_ptr<OpenAnswer> Answers::begin(std::string replySubject,
                                           std::optional<std::uint32_t> window) {
    auto answer = std::make_shared<OpenAnswer>(*this, std::move(replySubject), window);
    const std::lock_guard lock(mutex_);
    open_.push_back(answer);
    if (isClosed_) end(*answer);
    return answer;
}

// A new one goes in front: it has waited longest for its first packet.
bool Answers::makeReady(OpenAnswer& answer) {
    if (answer.isReady_ || !answer.maySend()) return false;
    answer.isReady_ = true;
    auto shared = answer.shared_from_this();
    answer.sent_ == 0 ? ready_.push_front(std::move(shared)) : ready_.push_back(std::move(shared));
    return true;
}

std::unique_ptr<CVekSendQueueItem> Answers::next() {
    if (engine_.REIsFresh() != TRUE) {
        endAll();
        return nullptr;
    }
    const std::lock_guard lock(mutex_);
    while (!ready_.empty()) {
        const std::shared_ptr<OpenAnswer> answer = std::move(ready_.front());
        ready_.pop_front();
        answer->isReady_ = false;
        if (!answer->maySend()) continue;
        auto packet = std::move(answer->packets_.front());
        answer->packets_.pop_front();
        --packets_;
        ++answer->sent_;
        answer->moved_ = Clock::now();
        makeReady(*answer);
        if (answer->isFinished_ && answer->packets_.empty()) forget(*answer);
        if (answer->packets_.size() == kHalf) answer->changed_.notify_all();
        return std::make_unique<OpenAnswer::Item>(answer, std::move(packet));
    }
    return nullptr;
}

void Answers::forget(const OpenAnswer& answer) {
    std::erase_if(open_, [&](const auto& one) { return one.get() == &answer; });
}

void Answers::end(OpenAnswer& answer) {
    if (std::exchange(answer.isEnded_, true)) return;
    packets_ -= answer.packets_.size();
    answer.packets_.clear();
    answer.changed_.notify_all();
    forget(answer);
}

void Answers::endAll() {
    const std::lock_guard lock(mutex_);
    while (!open_.empty()) end(*std::shared_ptr(open_.front()));
}

void Answers::close() {
    {
        const std::lock_guard lock(mutex_);
        isClosed_ = true;
    }
    endAll();
}

void Answers::endUnbegun() {
    const std::lock_guard lock(mutex_);
    for (auto next = open_.begin(); next != open_.end();) {
        const std::shared_ptr<OpenAnswer> answer = *next++;
        if (answer->sent_ == 0 && !answer->isFinished_) end(*answer);
    }
}

void Answers::onData(const char*, RvSender*, const RvDatum& data, RvListener*) {
    engine_.REDoAndSend([&] { onTake(data); });
}

void Answers::onTake(const RvDatum& data) {
    const auto take = conversation::readTake(data);
    if (!take) return;
    bool isNew = false;
    {
        const std::lock_guard lock(mutex_);
        const auto found = std::find_if(open_.rbegin(), open_.rend(), [&](const auto& one) {
            return one->isStreamed_ && one->replySubject_ == take->inbox;
        });
        if (found == open_.rend()) return;
        const std::shared_ptr<OpenAnswer> answer = *found;
        if (take->upTo == 0) return end(*answer);
        if (take->upTo <= answer->allowed_) return;
        answer->allowed_ = take->upTo;
        answer->isTaken_ = true;
        answer->changed_.notify_all();
        answer->moved_ = Clock::now();
        isNew = makeReady(*answer);
    }
    if (isNew) engine_.REWakeSendSource();
}

// The last packet is for a querier that is only slow: it says why no more come. While the loop did
// not run, what it has taken could not be heard.
void Answers::onTimer(RvTimer*) {
    const auto patience = isCrowded && isCrowded() ? kGivesWay : patience_;
    const auto now = Clock::now();
    const auto stood = now - std::exchange(looked_, now) - kLook;
    if (engine_.REIsFresh() != TRUE) return endAll();
    std::vector<std::unique_ptr<CVekSendQueueItem>> farewells;
    {
        const std::lock_guard lock(mutex_);
        for (auto next = open_.begin(); next != open_.end();) {
            const std::shared_ptr<OpenAnswer> answer = *next++;
            if (stood > kLook) answer->moved_ += stood;
            const bool waits = answer->isStreamed_ && answer->sent_ >= answer->allowed_;
            if (!waits || now - answer->moved_ <= patience) continue;
            end(*answer);
            ++abandoned_;
            farewells.push_back(std::make_unique<OpenAnswer::Item>(
                answer, refusalMessage(kNotTaken, answer->sent_ + 1)));
        }
    }
    for (const auto& farewell : farewells) farewell->RSQIDeQueueIt();
}

bool Answers::isLeaving() const {
    const std::lock_guard lock(mutex_);
    return !open_.empty();
}

std::size_t Answers::packets() const {
    const std::lock_guard lock(mutex_);
    return packets_;
}

std::uint64_t Answers::abandoned() const {
    const std::lock_guard lock(mutex_);
    return abandoned_;
}

}  // namespace kvx::detail
