#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kvx/Error.h"
#include "kvx/Record.h"
#include "platform/Export.h"

namespace kvx {

/// The rows of an answer, whole and in the order in which the service sent them.
using Rows = std::vector<Record>;

/// Why a question has no whole answer, with what came of it: `Partial` and `MixedAnswers` may have
/// rows, `Refused` may have records that say more.
struct QueryError : Error {
    Rows rows;
};

using QueryResult = tl::expected<Rows, QueryError>;

/// What came of an answer so far. Bytes are those of the records with their lengths.
struct AnswerTotals {
    std::uint64_t packets = 0;
    std::uint64_t plainBytes = 0;  ///< uncompressed
    std::uint64_t sentBytes = 0;   ///< as received
    std::uint64_t ignored = 0;     ///< packets of others that answered too; not counted above
    bool isComplete = false;       ///< all packets have come
    std::uint64_t unreadable = 0;  ///< records; a packet that breaks off counts as one
    std::string remark;            ///< of the service: "Query has zero matches"; mostly empty
};

/// The rows of an answer while it comes. A service that takes part in the conversation sends no
/// more than 64 packets beyond the one whose rows are being taken, and fewer at first; the packets
/// of another, which sends unasked, are kept until they are taken, up to 1 GiB.
///
/// May outlive its client. One thread at a time, unless stated otherwise.
class KVX_API RowStream {
  public:
    RowStream(RowStream&&) noexcept = default;
    RowStream& operator=(RowStream&&) noexcept;
    /// `cancel`.
    ~RowStream();

    /// Waits for the next row. Nothing after the last row of a whole answer. The error says why the
    /// answer is not whole, as `Client::query` does, once what came before has been given; its rows
    /// are those of a refusal. Both stay. `InvalidArgument` inside a function that the client
    /// calls.
    [[nodiscard]] tl::expected<std::optional<Record>, QueryError> next();

    /// Whether `next` would give a row or an end at once. When not, `whenReady` is called once, as
    /// soon as it would: on the client's thread, or on the one that cancels. It must not wait; a
    /// later call replaces it.
    [[nodiscard]] bool isReady(std::function<void()> whenReady = {});

    /// Waits for all rows that are left, as `Client::query` does; for answers that may be kept.
    [[nodiscard]] QueryResult rest();

    /// Ends the answer, at the service too: what is left of it is dropped, and `next`, also one
    /// that waits, gives `Ended`. Changes nothing after the end. Any thread.
    void cancel();

    /// Any thread.
    [[nodiscard]] AnswerTotals totals() const;

  private:
    friend class Client;
    class State;
    class Sink;
    explicit RowStream(std::shared_ptr<State> state);

    std::shared_ptr<State> state_;  // null when moved from
};

}  // namespace kvx
