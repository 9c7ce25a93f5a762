#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <utility>

#include "examples/modeld/store/Store.h"
#include "mom/mom.h"

namespace modeld {

/// One question: the text, the packet version that the querier reads, and the subject of the
/// answer.
struct Question {
    std::string text;
    EVekTransHdr version = VEK_TRANS_V0;
    std::string replySubject;
    std::string begunSubject;  ///< for the notice that a long answer begins; empty for none
};

/// The result of a question, for the log.
struct Verdict {
    std::uint64_t rows = 0;
    EVekStoreErrorStatus status = STORE_COMPLETE;
    std::string reason;    ///< empty unless the question was refused
    bool isProbe = false;  ///< `limit 0`: asks only whether a service answers
};

/// Closed when the service ends: no further answer is begun, since the next member answers. Any
/// thread.
class SendGate {
  public:
    /// Waits for running sends.
    void close() {
        const std::lock_guard guard(mutex_);
        open_ = false;
    }

    bool isOpen() {
        const std::lock_guard guard(mutex_);
        return open_;
    }

    /// Calls `send`, unless the gate is closed; `close` waits meanwhile.
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
/// Every question gets an answer. Rows are records with the columns as fields, without empty
/// values; no rows is an empty answer with the status "Query has zero matches". A refused question
/// is answered with the nearest status and one record with "error", a text, and "position", the
/// 1-based position in the query text if there is one. Once `gate` is closed nothing is sent, and
/// the reading of rows ends. Any thread.
Verdict answer(CVekEngine& engine, Store& store, const Question& question, SendGate& gate);

/// Answers with a refusal: the service is too busy.
void refuse(CVekEngine& engine, const Question& question, const std::string& reason);

}  // namespace modeld
