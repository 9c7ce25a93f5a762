#include "rva/Queries.h"

#include <fmt/format.h>

#include <utility>
#include <vector>

#include "rva/RowWriter.h"
#include "tools/bus/MessageJson.h"

namespace kvx::rva {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::minutes kMostTime(10);
constexpr std::chrono::seconds kBeyondTimeout(5);
constexpr std::size_t kSentAtOnce = 16384;  // bytes for which rows that are ready are kept

std::string totalsJson(const AnswerTotals& totals, std::uint64_t rows, Clock::time_point begin) {
    const std::chrono::duration<double, std::milli> spent = Clock::now() - begin;
    return bus::lineOf(bus::Json{{"rows", rows},
                                 {"packets", totals.packets},
                                 {"bytes", totals.plainBytes},
                                 {"sent_bytes", totals.sentBytes},
                                 {"remark", totals.remark},
                                 {"ms", spent.count()}});
}

// One answer while it is written.
class Writing {
  public:
    Writing(const Query& query, HttpAnswer& answer)
        : writer_(makeRowWriter(query)), answer_(answer) {}

    // Keeps the row, to be sent with others, unless `isLastNow`: no further one is ready. False
    // when there is nobody to write for, or the row has no place in this form.
    bool row(const Record& record, bool isLastNow) {
        if (!answer_.hasStarted() && !start()) return false;
        const auto text = writer_->row(record);
        if (!text) {
            send();
            answer_.breakOff();
            return false;
        }
        ++rows_;
        kept_ += *text;
        return (!isLastNow && kept_.size() < kSentAtOnce) || send();
    }

    void end(const AnswerTotals& totals) {
        if (!answer_.hasStarted() && !start()) return;
        kept_ += writer_->end(totalsJson(totals, rows_, begin_));
        send();
        answer_.finish();
    }

    void fail(const QueryError& error) {
        HttpReply reply = errorReplyOf(error);
        const std::string body = reply.body;
        if (answer_.reply(std::move(reply))) return;
        const auto last = writer_->error(body);
        kept_ += last.value_or("");
        send();
        last ? answer_.finish() : answer_.breakOff();
    }

    [[nodiscard]] bool isTooLong() const { return Clock::now() - begin_ > kMostTime; }

  private:
    bool start() {
        kept_ = writer_->begin();
        HttpAnswer::LastWords words;
        if (writer_->error("{}")) {
            words = [writer = writer_](std::string_view code, std::string_view text) {
                return writer->error(errorBody(code, text)).value_or("");
            };
        }
        return answer_.start({.type = writer_->type()}, std::move(words));
    }

    bool send() {
        const bool isSent = answer_.write(kept_);
        kept_.clear();
        return isSent;
    }

    const std::shared_ptr<RowWriter> writer_;
    HttpAnswer& answer_;
    const Clock::time_point begin_ = Clock::now();
    std::string kept_;  // of whole rows, not sent yet
    std::uint64_t rows_ = 0;
};

}  // namespace

struct Queries::Running {
    Running(Query asked, HttpAnswerPtr to, std::shared_ptr<const void> ofQueries, RowStream stream)
        : query(std::move(asked)),
          answer(std::move(to)),
          slot(std::move(ofQueries)),
          rows(std::move(stream)) {}

    Query query;
    HttpAnswerPtr answer;
    std::shared_ptr<const void> slot;
    RowStream rows;
    std::thread thread;
    std::atomic<bool> isDone{false};
};

Queries::~Queries() {
    end();
}

void Queries::ask(Query query, const HttpAnswerPtr& answer) {
    removeDone();
    auto slot = quota_.take();
    if (!slot) {
        answer->reply(errorReply(429, "TooMany", "16 queries are in progress"));
        return;
    }
    const std::lock_guard guard(mutex_);
    if (isEnding_) return;
    answer->expectWithin(query.timeout + kBeyondTimeout);
    RowStream rows = client_.stream(query.service, query.text, query.timeout);
    auto running =
        std::make_shared<Running>(std::move(query), answer, std::move(slot), std::move(rows));
    running_.push_back(running);
    running->thread = std::thread([this, running] { run(*running); });
    // The client's end ends the answer, at the service too.
    answer->onGone([weak = std::weak_ptr(running)] {
        if (const auto gone = weak.lock()) gone->rows.cancel();
    });
}

void Queries::run(Running& running) {
    Writing writing(running.query, *running.answer);
    for (;;) {
        auto row = running.rows.next();
        if (!row) {
            writing.fail(row.error());
            break;
        }
        if (!*row) {
            writing.end(running.rows.totals());
            break;
        }
        if (!writing.row(**row, !running.rows.isReady())) break;
        if (writing.isTooLong()) {
            writing.fail({{Errc::TimedOut, "an answer of more than ten minutes", ""}, {}});
            break;
        }
    }
    running.rows.cancel();
    running.slot.reset();
    running.answer.reset();
    running.isDone = true;
}

void Queries::removeDone() {
    const std::lock_guard guard(mutex_);
    std::erase_if(running_, [](const auto& one) {
        if (!one->isDone) return false;
        one->thread.join();
        return true;
    });
}

void Queries::end() {
    std::list<std::shared_ptr<Running>> running;
    {
        const std::lock_guard guard(mutex_);
        isEnding_ = true;
        running.swap(running_);
    }
    for (const auto& one : running) one->rows.cancel();
    for (const auto& one : running) one->thread.join();
}

}  // namespace kvx::rva
