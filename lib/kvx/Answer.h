#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "kvx/PacketNumbers.h"
#include "kvx/RowStream.h"
#include "kvx/Stamp.h"
#include "mom/mom.h"

namespace kvx::detail {

/// The stamp of a packet and how many of the rows are its.
struct StampedRows {
    Stamp stamp;
    std::size_t rows = 0;  ///< none of a refusal
};

/// Some packets of an answer.
struct Packets {
    Rows rows;
    std::size_t count = 0;
    std::size_t cost = 0;                ///< of the bound
    std::vector<StampedRows> stamped{};  ///< the packets that have a stamp
    std::optional<RowSource> source{};   ///< the last one that a packet names
};

/// Moves `more` behind `all`.
void append(Packets& all, Packets& more);

/// The packets of one answer, until they are 1 to N, each once. One thread at a time.
///
/// Each is decoded when it comes. A hostile answer costs no more than the bound.
class Answer {
  public:
    enum class State {
        Foreign,   ///< no packet: nothing has changed
        Waiting,   ///< others are to come
        Complete,  ///< these were all
        Mixed,     ///< of two answers, or none: a number that is there already or cannot be
        TooLarge   ///< it would pass the bound
    };

    static constexpr std::int64_t kMostPackets = 1'000'000;
    /// Of its uncompressed packets, and `kRecordCost` more for each record, field and text of a
    /// `RowSource`; what has been released does not count.
    static constexpr std::size_t kMostBytes = std::size_t{1} << 30U;
    static constexpr std::size_t kRecordCost = 256;
    static constexpr const char* kBound = "it is larger than 1,000,000 packets or 1 GiB of records";

    /// `isConversation`: of a member that says who it is, and may not know the count yet.
    State take(const RvDatum& data, bool isConversation);

    /// A packet of another answer.
    void countIgnored() { ++totals_.ignored; }

    /// The packets, in the order of their numbers, whose predecessors have been taken out.
    Packets takeNext();
    /// All packets that are left, in the order of their numbers, when no more will come.
    Packets takeRest();
    /// Gives back what packets cost that were taken out.
    void release(std::size_t cost) { bytes_ -= cost; }

    /// Why a complete answer is no success; the records of a refusal are the error's, not rows.
    std::optional<QueryError> failure(const std::string& tried);

    [[nodiscard]] std::size_t packets() const { return numbers_.packets(); }
    [[nodiscard]] AnswerTotals totals() const;

  private:
    void count(const packet::Header& header, packet::Bytes payload);

    PacketNumbers numbers_;
    std::map<std::int64_t, Packets> packets_;  // by number; those taken out are gone
    std::int64_t next_ = 1;                    // the number of the next to take out
    Rows refusal_;
    std::size_t bytes_ = 0;
    AnswerTotals totals_;
    EVekStoreErrorStatus status_ = STORE_COMPLETE;
};

/// The header of a packet of an answer; nothing for what is no packet.
KVX_API std::optional<packet::Header> headerOf(const RvDatum& data);

/// The records of one packet, for notices; of a defective one those before the defect.
Rows recordsOf(const RvDatum& data);

}  // namespace kvx::detail
