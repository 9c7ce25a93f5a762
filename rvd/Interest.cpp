// Changes are written into one message for all followers of a space. It is closed, and a new one
// begun, when a follower is told: at the end of the batch, or earlier because it gets something
// else. A closed message exists until every follower has been told it.
//
// A snapshot walks over the subjects in pieces. Every change that comes meanwhile is told at once,
// whether the walk has passed its subject or not, and before the next piece. So the follower, for
// whom the last word on a subject counts, knows of each subject that the walk has passed or that
// has changed what is true of it, and a change still comes before what its session sends next.

#include "rvd/Interest.h"

#include <algorithm>
#include <array>
#include <new>

#include "rv/message/rvmsg.h"
#include "rv/wire/ControlMessage.h"

namespace kvx::rvd {
namespace {

constexpr std::size_t kMostBytes = 16'000;
constexpr std::size_t kLeastBytes = kMaxSubjectBytes + 64;  // for one subject
constexpr std::size_t kQueueParts = 4;

// "_RVD.INTEREST", encoded.
constexpr std::array<std::uint8_t, 19> kInterestSubject = {
    0, 19, 2, 6, '_', 'R', 'V', 'D', 0, 10, 'I', 'N', 'T', 'E', 'R', 'E', 'S', 'T', 0};

}  // namespace

InterestMessage::InterestMessage(std::size_t capacity)
    : capacity_(capacity), body_(std::make_unique_for_overwrite<std::uint8_t[]>(capacity)) {}

void InterestMessage::begin(const char* operation) noexcept {
    (void)rvmsg_Init(body_.get(), static_cast<rvmsg_Size>(capacity_));
    add("op", operation);
    hasContent_ = false;
}

bool InterestMessage::add(const char* field, SubjectView subject) noexcept {
    const int code = rvmsg_Append(body_.get(), static_cast<rvmsg_Size>(capacity_), field,
                                  RVMSG_SUBJECT, subject.length(), subject.data());
    hasContent_ = hasContent_ || code == 0;
    return code == 0;
}

void InterestMessage::add(const char* field, const char* text) noexcept {
    (void)rvmsg_Append(body_.get(), static_cast<rvmsg_Size>(capacity_), field, RVMSG_STRING, 0,
                       text);
    hasContent_ = true;
}

PayloadRef InterestMessage::build() const {
    const auto built = wire::buildData(kInterestSubject, nullptr, 0, {RVMSG_MSG, 0, body_.get()});
    if (built.code != 0) throw std::bad_alloc();
    return Payload::copy(built.message.view());
}

std::size_t Interest::capacityFor(std::size_t queueLimit) {
    return std::clamp(queueLimit / kQueueParts, kLeastBytes, kMostBytes);
}

void Interest::prepare() {
    followers_.reserve(followers_.size() + 1);
    if (piece_) return;
    auto open = std::make_unique<InterestMessage>(settings_.capacity);
    piece_ = std::make_unique<InterestMessage>(settings_.capacity);
    open_ = std::move(open);
    open_->begin("change");
}

void Interest::join(Follower& follower) noexcept {
    seal();
    followers_.push_back(&follower);
    follower.next = newest();
    begin(follower);
    follower.receiver->wake();
}

void Interest::leave(Follower& follower) noexcept {
    for (; follower.next < newest(); ++follower.next) --changes_[follower.next - first_].unread;
    std::erase(followers_, &follower);
    for (; !changes_.empty() && changes_.front().unread == 0; ++first_) changes_.pop_front();
    follower.stage = Follower::Stage::None;
    if (!followers_.empty()) return;
    open_.reset();
    piece_.reset();
}

void Interest::addPattern(SubjectView pattern) {
    const auto place = patterns_.lower_bound(pattern.encoded());
    if (place != patterns_.end() && place->first == pattern.encoded()) {
        ++place->second;
    } else {
        patterns_.emplace_hint(place, pattern.encoded(), 1);
    }
}

void Interest::removePattern(SubjectView pattern) noexcept {
    const auto place = patterns_.find(pattern.encoded());
    if (place != patterns_.end() && --place->second == 0) patterns_.erase(place);
}

void Interest::note(const char* field, SubjectView subject) noexcept {
    if (!open_->add(field, subject)) {
        seal();
        (void)open_->add(field, subject);
    }
    wake();
}

void Interest::wake() noexcept {
    if (std::exchange(isAwake_, true)) return;
    for (const Follower* follower : followers_) follower->receiver->wake();
}

// Closes the message under construction.
void Interest::seal() noexcept {
    if (!open_->hasContent()) return;
    try {
        changes_.push_back({open_->build(), followers_.size()});
    } catch (const std::bad_alloc&) {
        lose();
    }
    open_->begin("change");
}

// What is not told yet never will be.
void Interest::lose() noexcept {
    first_ = newest();
    changes_.clear();
    for (Follower* follower : followers_) {
        follower->next = first_;
        isDueAgain(*follower);
    }
}

void Interest::isDueAgain(Follower& follower) noexcept {
    follower.stage = Follower::Stage::None;
    follower.isDue = true;
}

void Interest::tell(Follower& follower) noexcept {
    if (follower.stage == Follower::Stage::Begin) {
        try {
            announce(follower);
        } catch (const std::bad_alloc&) {
            isDueAgain(follower);
        }
    }
    seal();
    while (follower.next < newest()) {
        Changes& changes = changes_[follower.next++ - first_];
        const PayloadRef message = changes.message;
        if (--changes.unread == 0) {
            changes_.pop_front();
            ++first_;
        }
        follower.receiver->deliver(message);
    }
}

void Interest::begin(Follower& follower) noexcept {
    follower.stage = Follower::Stage::Begin;
    follower.subject = 1;
    follower.pattern.clear();
    follower.isDue = false;
}

void Interest::announce(Follower& follower) {
    piece_->begin("snapshot");
    piece_->add("daemon", settings_.daemon.c_str());
    const PayloadRef message = piece_->build();
    follower.stage = Follower::Stage::Subjects;
    follower.receiver->deliver(message);
}

void Interest::complete(Follower& follower) {
    piece_->begin("complete");
    const PayloadRef message = piece_->build();
    follower.stage = Follower::Stage::None;
    follower.receiver->deliver(message);
}

// True when nothing is left.
bool Interest::walkPatterns(Follower& follower, std::size_t steps) {
    auto at =
        follower.pattern.empty() ? patterns_.begin() : patterns_.upper_bound(follower.pattern);
    for (; at != patterns_.end(); ++at) {
        if (steps-- == 0 || !piece_->add("add", SubjectView::trusted(at->first.data()))) {
            return false;
        }
        follower.pattern = at->first;
    }
    return true;
}

}  // namespace kvx::rvd
