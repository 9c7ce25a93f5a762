#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <utility>

#include "examples/modeld/store/Store.h"
#include "mom/mom.h"

namespace modeld {

/// One question: the text, the packet version that the querier reads, and where the answer goes.
struct Question {
    std::string text;
    EVekTransHdr version = VEK_TRANS_V0;
    std::string replySubject;
    std::string begunSubject;  ///< where to tell that a long answer begins; empty for nowhere
};

/// How a question was answered, for the log.
struct Verdict {
    std::uint64_t rows = 0;
    EVekStoreErrorStatus status = STORE_COMPLETE;
    std::string reason;    ///< empty unless the question was refused
    bool isProbe = false;  ///< it asked for no rows, and so only whether anybody answers
};

/// Closed when the service ends: an answer is then not begun any more, since the next member
/// answers. Any thread.
class SendGate {
  public:
    /// Waits for whoever is sending.
    void close() {
        const std::lock_guard guard(mutex_);
        open_ = false;
    }

    bool isOpen() {
        const std::lock_guard guard(mutex_);
        return open_;
    }

    /// Calls `send`, unless the gate is closed; it stays as it is meanwhile.
    template <class Send>
    void pass(Send&& send) {
        const std::lock_guard guard(mutex_);
        if (open_) std::forward<Send>(send)();
    }

  private:
    std::mutex mutex_;
    bool open_ = true;  // guarded by mutex_
};

/// Answers one question out of `store` through the send queue of `engine`.
///
/// Every question gets an answer. Rows travel as records with the columns as fields, empty values
/// left out; no rows as an empty answer with the status "Query has zero matches". A question that
/// is refused is answered with the status nearest to the reason and one record that says more:
/// "error", a text, and "position", the 1-based place in the query text where there is one. Once
/// `gate` is closed nothing is sent, and the reading of rows ends. Any thread.
Verdict answer(CVekEngine& engine, Store& store, const Question& question, SendGate& gate);

/// Answers with a refusal of the service's own: it is too busy to look at the question.
void refuse(CVekEngine& engine, const Question& question, const std::string& reason);

}  // namespace modeld
