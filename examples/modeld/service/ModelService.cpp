// The path of a question: the service's thread takes a database connection, hands the rows on as
// they are read, and returns the connection. Everything else, from hearing the question to sending
// the packets, is the service's.

#include "examples/modeld/service/ModelService.h"

#include <utility>
#include <variant>

#include "examples/modeld/oql/Parse.h"
#include "examples/modeld/service/Log.h"
#include "examples/modeld/service/RowRecord.h"
#include "platform/Text.h"

namespace modeld {

namespace {

constexpr std::size_t kMostLogged = 200;  // bytes of a question in a line of the log

// The store status of a refusal. A syntax error has no status of its own: it is "not permitted".
EVekStoreErrorStatus statusOf(StoreError error) {
    switch (error) {
        case StoreError::NoDatabase:
            return STORE_NO_DATABASE;
        case StoreError::NoTable:
            return STORE_NO_TABLE;
        case StoreError::NoColumn:
            return STORE_NO_COLUMN;
        case StoreError::TypeMismatch:
            return STORE_TYPE_MISMATCH;
        case StoreError::BadSource:
        case StoreError::Busy:
        case StoreError::Failed:
            break;
    }
    return STORE_PERMISSION_DENIED;
}

// The result of a question, for the log.
struct Verdict {
    std::uint64_t rows = 0;
    std::string reason{};  // empty unless the question was refused
    bool isProbe = false;  // `limit 0`: asks only whether a service answers
};

Verdict refuse(kvx::Reply& reply, const std::string& why, oql::Position position,
               EVekStoreErrorStatus status = STORE_PERMISSION_DENIED) {
    reply.refuse(why, static_cast<int>(position), status);
    return {.reason = position == 0 ? why : why + " at position " + std::to_string(position)};
}

// Notices spell the table as the service does, whatever the letters of the question.
const std::string& spelled(const std::string& asked, const std::string& table) {
    return oql::lowered(asked) == oql::lowered(table) ? table : asked;
}

// `table` is the one that notices tell of.
Verdict answerFrom(Store& store, const kvx::Changes& changes, const std::string& table,
                   const std::string& text, kvx::Reply& reply) {
    const auto parsed = oql::parse(text);
    if (const auto* error = std::get_if<oql::SyntaxError>(&parsed)) {
        return refuse(reply, "syntax error: " + error->message, error->position);
    }
    const auto& query = std::get<oql::Query>(parsed);
    Verdict verdict;
    std::optional<Refusal> refusal;
    const kvx::Stamp stamp = changes.read([&] { refusal = store.beginSnapshot(); });
    if (!refusal) {
        reply.asOf(stamp, changes.source(spelled(query.table.text, table)));
        RowRecord record;
        refusal = store.run(
            query, [&](const Row& row) { return reply.row(record.of(row)); }, verdict.rows);
        store.endSnapshot();
    }
    if (refusal) {
        verdict = refuse(reply, refusal->message, refusal->position, statusOf(refusal->error));
    }
    verdict.isProbe = query.limit == 0;
    return verdict;
}

void logAnswer(const std::string& question, const Verdict& verdict, double milliseconds) {
    const std::string text = kvx::excerpt(question, kMostLogged);
    if (verdict.reason.empty()) {
        Log::debug("{} rows in {:.1f} ms: {}", verdict.rows, milliseconds, text);
    } else if (verdict.isProbe) {
        Log::debug("refused: {}: {}", verdict.reason, text);
    } else {
        Log::info("refused: {}: {}", verdict.reason, text);
    }
}

}  // namespace

ModelService::ModelService(kvx::Service& service, std::string database, const Source& source,
                           std::string membership)
    : service_(service),
      changes_(service.changes()),
      database_(std::move(database)),
      table_(source.table),
      membership_(std::move(membership)) {
    // Column names are in lower case.
    if (!source.key.empty()) changes_.setKey(table_, {oql::lowered(source.key)});
}

bool ModelService::start(std::string& reason) {
    Refusal refusal;
    auto store = borrowStore(refusal);
    if (!store) {
        reason = refusal.message;
        return false;
    }
    returnStore(std::move(store));
    service_.onRole([this](bool active) { roleChanged(active); });
    service_.onQuery(
        [this](const kvx::Question& question, kvx::Reply& reply) { answer(question, reply); });
    return true;
}

void ModelService::roleChanged(bool active) {
    const std::string subject = service_.querySubject();
    if (!active) return Log::info("standing by on {} ({})", subject, membership_);
    const std::chrono::duration<double> age = std::chrono::steady_clock::now() - begin_;
    Log::info("answering on {} (active after {:.1f} s)", subject, age.count());
}

void ModelService::tellHeld() {
    const std::uint64_t held = service_.statistics().held;
    const std::uint64_t told = toldHeld_.exchange(held);
    if (held > told) Log::info("questions held meanwhile: {}", held - told);
}

void ModelService::answer(const kvx::Question& question, kvx::Reply& reply) {
    const auto begin = std::chrono::steady_clock::now();
    tellHeld();
    Refusal refusal;
    auto store = borrowStore(refusal);
    const Verdict verdict = store ? answerFrom(*store, changes_, table_, question.text, reply)
                                  : refuse(reply, refusal.message, 0, STORE_NO_DATABASE);
    if (store) returnStore(std::move(store));
    const std::chrono::duration<double, std::milli> spent =
        std::chrono::steady_clock::now() - begin;
    logAnswer(question.text, verdict, spent.count());
    if (verdict.isProbe) return;
    rows_ += verdict.rows;
    ++(verdict.reason.empty() ? answered_ : refused_);
}

ModelService::Statistics ModelService::statistics() const {
    const auto all = service_.statistics();
    return {answered_, refused_ + all.refused, rows_, all.waiting};
}

std::unique_ptr<Store> ModelService::borrowStore(Refusal& refusal) {
    {
        const std::lock_guard guard(storesMutex_);
        if (!stores_.empty()) {
            auto store = std::move(stores_.back());
            stores_.pop_back();
            return store;
        }
    }
    return Store::open(database_, Store::Access::ReadOnly, refusal);
}

void ModelService::returnStore(std::unique_ptr<Store> store) {
    const std::lock_guard guard(storesMutex_);
    stores_.push_back(std::move(store));
}

}  // namespace modeld
