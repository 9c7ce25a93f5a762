#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "kvx/Client.h"
#include "kvx/Error.h"
#include "kvx/Record.h"
#include "kvx/Stamp.h"

namespace kvx::detail {

/// Makes of an answer, and of the notices that come before and after it, every change once and in
/// order. Events in; rows, changes and questions out: no bus and no clock. One thread at a time.
///
/// Holds the rows that it follows, as they are after the last change, and at most `Limits` of
/// notices that wait for an answer.
class FollowState {
  public:
    enum class Question {
        Query,   ///< the text; answered by `onAnswer`
        History  ///< the changes after `at`; answered by `onHistory`
    };

    /// A packet of changes; without changes it tells only its number.
    struct Notice {
        Stamp stamp;
        Rows changes;
        std::size_t bytes = 0;  ///< what it costs while it waits
    };

    struct AnswerRows {
        Rows rows;
        std::optional<Stamp> stamp;  ///< none: the service does not number its changes
        RowSource source;
    };

    /// Called last, when the state is consistent; none may call the state, except that `ask` may
    /// be followed by an event at any later time.
    class Sink {
      public:
        virtual ~Sink() = default;
        /// One question is open at a time. It must be sent after this call; an answer that was
        /// begun before it is not one.
        virtual void ask(Question question) = 0;
        virtual void onRow(const Record& row) = 0;
        virtual void onChange(const Record& change) = 0;
        /// What turns the rows so far, with all changes given, into the rows now: changes, first
        /// those that delete.
        virtual void onResynchronised(std::span<const Record> differences) = 0;
        /// The end: no further event has an effect.
        virtual void onFailure(const Error& error) = 0;
    };

    struct Limits {
        std::size_t notices = 10'000;
        std::size_t bytes = std::size_t{16} << 20U;
    };

    explicit FollowState(Sink& sink) : FollowState(sink, Limits()) {}
    FollowState(Sink& sink, Limits limits) : sink_(sink), limits_(limits) {}

    /// Asks the query. Notices must be heard already.
    void start();

    void onNotice(Notice notice);
    void onAnswer(AnswerRows answer);
    /// `notices` in the order of their packets.
    void onHistory(std::span<const Notice> notices);
    /// The open question has no answer. Before the first answer this is the end; afterwards it is
    /// asked again, and a history that is not only late (`Lost`, `TimedOut`) becomes the query.
    void onQuestionFailed(const Error& error);
    /// Notices may have been lost: the bus said so, or the connection was away.
    void onLoss();

    /// After the last change that was given.
    [[nodiscard]] const Stamp& at() const { return at_; }

  private:
    using RowsByKey = std::map<std::string, Record>;

    void ask(Question question);
    void fail(const Error& error);
    void keep(Notice notice);
    void followOn();
    [[nodiscard]] bool takeNext(const Notice& notice);
    void apply(const Record& record);
    void begin(AnswerRows answer);
    void resynchronise(AnswerRows answer);
    [[nodiscard]] std::string keyOf(const Record& row) const;
    [[nodiscard]] RowsByKey byKey(Rows rows) const;

    Sink& sink_;
    const Limits limits_;

    std::optional<Question> open_;
    bool isOver_ = false;
    bool isInDoubt_ = false;    // a notice may be missing that came after the open question
    std::vector<Notice> kept_;  // heard since the open question
    std::size_t keptBytes_ = 0;

    Stamp at_;
    std::uint64_t left_ = 0;  // the epoch before that of at_
    RowSource source_;
    RowsByKey rows_;
};

}  // namespace kvx::detail
