#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "rv/message/SubjectView.h"
#include "rvd/Payload.h"
#include "rvd/Receiver.h"

namespace kvx::rvd {

/// A message to followers under construction: a data message on "_RVD.INTEREST", its data a nested
/// message of the text "op" and more.
class InterestMessage {
  public:
    /// Reserves `capacity` bytes for the nested message. Throws `std::bad_alloc`.
    explicit InterestMessage(std::size_t capacity);

    void begin(const char* operation) noexcept;
    /// False, with nothing changed, when the message is full.
    [[nodiscard]] bool add(const char* field, SubjectView subject) noexcept;
    void add(const char* field, const char* text) noexcept;
    /// Whether it has more than its operation.
    [[nodiscard]] bool hasContent() const { return hasContent_; }
    /// The message, whole. Throws `std::bad_alloc` and changes nothing.
    [[nodiscard]] PayloadRef build() const;

  private:
    std::size_t capacity_;
    std::unique_ptr<std::uint8_t[]> body_;
    bool hasContent_ = false;
};

/// How far one follower has been told.
struct Follower {
    explicit Follower(Receiver& teller) : receiver(&teller) {}

    // Of a snapshot; in the order of its parts.
    enum class Stage : std::uint8_t { None, Begin, Subjects, Patterns };

    Receiver* receiver;
    std::uint32_t listens = 0;     // on "_RVD.INTEREST"
    std::uint64_t next = 0;        // the number of the next message of changes
    Stage stage = Stage::None;     // of the snapshot under way
    std::uint32_t subject = 1;     // the next of the walk
    std::string pattern;           // the last of the walk
    bool isDue = false;            // something could not be told: it needs a fresh snapshot
    std::uint64_t lossesSeen = 0;  // of its queue, at the beginning of the last snapshot
};

/// What the followers of one space are told: which subjects sessions that do not follow listen to.
///
/// Knows the patterns that are in trees of single sessions; all else is in the tree of the space.
/// A subject may be told although it is known, or taken back although it is not: the last one
/// counts. Loop thread only.
class Interest {
  public:
    struct Settings {
        std::string daemon;    ///< random text, told with each snapshot
        std::size_t capacity;  ///< bytes of a nested message; one subject must fit
    };
    /// Bytes of a nested message: with what is around it less than 16 KiB, and several of the
    /// messages fit into a queue of `queueLimit` bytes if possible.
    [[nodiscard]] static std::size_t capacityFor(std::size_t queueLimit);
    /// Subjects that one step of a snapshot looks at.
    static constexpr std::size_t kWalkedAtOnce = 1'024;

    /// `settings` must outlive this object.
    explicit Interest(const Settings& settings) : settings_(settings) {}

    [[nodiscard]] bool isFollowed() const { return !followers_.empty(); }

    /// Makes room for one more follower. Throws `std::bad_alloc`.
    void prepare();
    /// Begins to tell it, with a snapshot. Comes after `prepare`.
    void join(Follower& follower) noexcept;
    void leave(Follower& follower) noexcept;

    /// A session listens to a pattern in a tree of its own. Throws `std::bad_alloc` and changes
    /// nothing.
    void addPattern(SubjectView pattern);
    void removePattern(SubjectView pattern) noexcept;
    [[nodiscard]] bool hasPattern(SubjectView pattern) const {
        return !patterns_.empty() && patterns_.contains(pattern.encoded());
    }

    /// A subject has gained its first listen, or is about to lose its last.
    void added(SubjectView subject) noexcept { note("add", subject); }
    void removed(SubjectView subject) noexcept { note("remove", subject); }

    /// Delivers to the follower what has changed. Without memory for it, all of them are due.
    void tell(Follower& follower) noexcept;
    /// Whoever has something to be told later is woken again.
    void rest() noexcept { isAwake_ = false; }

    /// Begins a snapshot, in place of one that is under way.
    static void begin(Follower& follower) noexcept;
    /// Tells what has changed, and the next piece of the snapshot under way; its subjects are those
    /// of `tree` and the patterns.
    template <class Tree>
    void tellMore(Follower& follower, const Tree& tree) noexcept {
        tell(follower);
        if (follower.stage < Follower::Stage::Subjects) return;
        try {
            piece_->begin("change");
            const bool isThrough = walk(follower, tree);
            if (piece_->hasContent()) follower.receiver->deliver(piece_->build());
            if (isThrough) complete(follower);
        } catch (const std::bad_alloc&) {
            isDueAgain(follower);
        }
    }

  private:
    // Read by so many followers at most.
    struct Changes {
        PayloadRef message;
        std::size_t unread;
    };
    // By the bytes of their subjects, how many sessions listen to it.
    using Patterns = std::map<std::string, std::uint32_t, std::less<>>;

    template <class Tree>
    bool walk(Follower& follower, const Tree& tree) {
        std::size_t steps = kWalkedAtOnce;
        while (follower.stage == Follower::Stage::Subjects) {
            if (steps-- == 0) return false;
            const auto id = tree.next(follower.subject);
            if (id == 0) {
                follower.stage = Follower::Stage::Patterns;
            } else {
                if (tree.count(id) != 0 && !piece_->add("add", tree.subject(id))) return false;
                follower.subject = id + 1;
            }
        }
        return walkPatterns(follower, steps);
    }
    bool walkPatterns(Follower& follower, std::size_t steps);
    void note(const char* field, SubjectView subject) noexcept;
    void wake() noexcept;
    void announce(Follower& follower);
    void complete(Follower& follower);
    void seal() noexcept;
    void lose() noexcept;
    static void isDueAgain(Follower& follower) noexcept;
    [[nodiscard]] std::uint64_t newest() const { return first_ + changes_.size(); }

    const Settings& settings_;
    std::vector<Follower*> followers_;
    Patterns patterns_;
    std::unique_ptr<InterestMessage> open_;   // changes that are in no message yet
    std::unique_ptr<InterestMessage> piece_;  // of a snapshot, or a mark
    std::deque<Changes> changes_;             // that some follower has not been told
    std::uint64_t first_ = 0;                 // the number of the first of them
    bool isAwake_ = false;                    // all followers know that something is to be told
};

}  // namespace kvx::rvd
