#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "rv/message/SlotTable.h"
#include "rv/message/SubjectHash.h"
#include "rv/message/SubjectView.h"
#include "rvd/Router.h"
#include "rvd/Shapes.h"

namespace kvx::rvd {

/// The subjects on which most messages flow, in at most 1 MiB whatever the number of subjects.
///
/// Counts one message in so many, by chance; that number follows the rate, so that no more than
/// some thousand are counted a second, and all of them as long as there are no more. Of the
/// messages counted, weighted so that those of a minute ago count half, a subject that has had more
/// than one in `kSubjects` is in the table. What is known of a subject is known from the moment
/// when it came in: what it may have had before that is its `missed`. An estimate of m messages
/// from one in n is, as a rule, not further off than 2 sqrt(m n). Loop thread only.
class BusySubjects {
  public:
    static constexpr std::size_t kSubjects = 640;
    static constexpr std::size_t kSenders = 8;      ///< distinct ones that are known of a subject
    static constexpr std::size_t kShapesOfOne = 4;  ///< likewise
    static constexpr std::uint32_t kCountedASecond = 4'096;

    struct Entry {
        std::string service;
        std::string network;
        std::string subject;  ///< encoded
        platform::Milliseconds since = 0;
        double messages = 0;  ///< since then; estimated, as all that follows
        double bytes = 0;
        double missed = 0;
        double rate = 0;  ///< messages a second, of the last few seconds
        double byteRate = 0;
        std::size_t listeners = 0;  ///< whom the last message counted has reached
        std::array<std::uint64_t, kSenders> senders{};  ///< `Receiver::number`, 0: none
        bool hasMoreSenders = false;
        struct Seen {
            Shapes::Id shape = 0;  // 0: none
            double messages = 0;
        };
        std::array<Seen, kShapesOfOne> shapes{};
        double otherShapes = 0;  ///< messages of still other shapes

      private:
        friend class BusySubjects;
        double freshMessages_ = 0;  // since the last tick
        double freshBytes_ = 0;
        std::uint64_t space_ = 0;
        std::uint32_t hash_ = 0;
    };
    using Place = std::uint16_t;  ///< of a subject in the table; 0: none

    BusySubjects();

    /// One message; true if it is one to be counted.
    [[nodiscard]] bool isNext() noexcept { return --untilNext_ == 0; }
    /// Counts it: `isNext` has returned true. Without memory it is not counted. Returns where.
    Place count(const Router::Session& from, std::uint64_t sender, SubjectView subject,
                wire::Bytes message, platform::Milliseconds now) noexcept;
    /// It has reached so many sessions; the place may have become that of another subject.
    void reached(Place place, SubjectView subject, std::size_t listeners) noexcept {
        if (place == 0 || entries_[place - 1U].subject != subject.encoded()) return;
        entries_[place - 1U].listeners = listeners;
    }

    /// About once a second; `elapsed`: since the last time.
    void tick(platform::Milliseconds elapsed) noexcept;

    /// The places in use, the busiest subject first. Throws `std::bad_alloc`.
    [[nodiscard]] std::vector<Place> byRate() const;
    [[nodiscard]] const Entry& operator[](Place place) const { return entries_[place - 1U]; }
    [[nodiscard]] const Shapes& shapes() const { return shapes_; }
    /// One message in so many is counted now.
    [[nodiscard]] std::uint32_t every() const { return every_; }

  private:
    struct SlotHash {
        std::uint32_t operator()(const HashSlot& slot) const { return slot.hash; }
    };

    void drawNext() noexcept;
    [[nodiscard]] Place find(std::uint32_t hash, std::uint64_t space, SubjectView subject) const;
    Place enter(const Router::Session& from, std::uint32_t hash, SubjectView subject,
                platform::Milliseconds now);
    void leave(Place place) noexcept;
    void noteShape(Entry& entry, wire::Bytes message, double weight);

    const SubjectHash hash_;
    std::vector<Entry> entries_;
    std::vector<float> weights_;  // of the entries, what they are ordered by
    BasicSlotTable<HashSlot, SlotHash> places_;
    Shapes shapes_;
    std::uint32_t every_ = 1;
    std::uint32_t untilNext_ = 1;
    std::uint32_t countedNow_ = 0;  // in this second
    std::uint64_t random_;
};

}  // namespace kvx::rvd
