#pragma once

#include <cstdint>
#include <map>
#include <span>

#include "kvx/Client.h"
#include "kvx/PacketNumbers.h"
#include "mom/mom.h"

namespace kvx::detail {

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
    /// Of its uncompressed packets, and `kRecordCost` more for each record and field.
    static constexpr std::size_t kMostBytes = std::size_t{1} << 30U;
    static constexpr std::size_t kRecordCost = 256;
    static constexpr const char* kBound = "it is larger than 1,000,000 packets or 1 GiB of records";

    State take(const RvDatum& data);

    [[nodiscard]] bool isEmpty() const { return packets_.empty(); }
    [[nodiscard]] std::size_t packets() const { return packets_.size(); }

    /// The rows and the status of a complete answer.
    QueryResult result(const std::string& tried);
    /// The same of one that ended with `code`.
    QueryResult failure(Errc code, std::string text, const std::string& tried);

  private:
    Rows takeRows();

    PacketNumbers numbers_;
    std::map<std::int64_t, Rows> packets_;
    std::size_t bytes_ = 0;
    std::size_t defective_ = 0;  // packets with a part that cannot be read
    EVekStoreErrorStatus status_ = STORE_COMPLETE;
};

/// The records of one packet, for notices; of a defective one those before the defect.
Rows recordsOf(const RvDatum& data);

}  // namespace kvx::detail
