#pragma once

#include <string>
#include <string_view>

#include "kvx/Record.h"
#include "kvx/Stamp.h"
#include "mom/transport/CVekTransport.h"
#include "platform/Export.h"

namespace kvx {

/// A question as a service hears it.
struct Question {
    std::string text;          ///< the query
    std::string replySubject;  ///< the inbox of the querier
};

/// The answer to one question. Its rows leave while it is made, a hundred in a packet, when the
/// querier takes them as they come, else when the function returns that was given it. One thread at
/// a time.
class KVX_API Reply {
  public:
    Reply(const Reply&) = delete;
    Reply& operator=(const Reply&) = delete;

    /// Adds a row, encoded at once. Waits while the querier takes the rows more slowly than they
    /// are made. False when nobody wants the answer any more: further rows are dropped.
    bool row(const Record& record);

    /// Says which changes the rows have in them: `stamp` is what `Changes::read` returned when they
    /// were read, `source` the `Changes::source` of their table. Of a member that is not active any
    /// more it becomes a refusal. Before the first row.
    void asOf(const Stamp& stamp, RowSource source = {});

    /// Makes it a refusal, which says why; rows that have not left are dropped. `position`, when
    /// above 0, is the place in the query's text, from 1.
    void refuse(std::string_view why, int position = 0,
                EVekStoreErrorStatus status = STORE_PERMISSION_DENIED);

    /// Whether somebody still waits for it.
    [[nodiscard]] bool isWanted() const;

  private:
    friend class Service;
    class State;
    explicit Reply(State& state) : state_(state) {}

    State& state_;
};

}  // namespace kvx
