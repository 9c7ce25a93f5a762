// From a question to the packets of its answer. Rows go into a batch that encodes and compresses
// them while further rows are read, so that a whole table needs little memory.

#include "examples/modeld/service/Answer.h"

#include <memory>
#include <variant>

#include "examples/modeld/oql/Parse.h"
#include "examples/modeld/service/BatchBuilder.h"
#include "examples/modeld/service/RowRecord.h"
#include "kvx/HeldQuestions.h"

namespace modeld {

namespace {

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

void addRefusal(CVekTransport& transport, const std::string& message, oql::Position position) {
    CVekBaseRecord record;
    addField(record, "error", std::make_unique<CVekAtom>(message.c_str()));
    if (position != 0) {
        addField(record, "position", std::make_unique<CVekAtom>(static_cast<long long>(position)));
    }
    transport.RTAddRecord(&record);
}

// Returns false, and sends nothing, when a packet is too large for a message.
bool send(CVekTransport& transport, const Question& question, const Verdict& verdict) {
    transport.RTSetError(verdict.status);
    transport.RTSetDestinationOnSubject(question.replySubject.c_str());
    if (verdict.status == STORE_ZERO_MATCHES) {
        transport.RTNilResults();
    } else {
        transport.RTCreatePackets(question.version, true);
    }
    return transport.RTSendAll(false) == kvx::kOk;
}

Verdict refused(EVekStoreErrorStatus status, const std::string& message, oql::Position position) {
    Verdict verdict;
    verdict.status = status;
    verdict.reason = message;
    if (position != 0) verdict.reason += " at position " + std::to_string(position);
    return verdict;
}

}  // namespace

Verdict answer(CVekEngine& engine, Store& store, const Question& question, SendGate& gate) {
    CVekTransport transport(&engine);
    Verdict verdict;
    auto parsed = oql::parse(question.text);
    if (const auto* error = std::get_if<oql::SyntaxError>(&parsed)) {
        const std::string message = "syntax error: " + error->message;
        addRefusal(transport, message, error->position);
        verdict = refused(STORE_PERMISSION_DENIED, message, error->position);
    } else {
        const auto& query = std::get<oql::Query>(parsed);
        BatchBuilder batch(question.version);
        const auto refusal = store.run(
            query,
            [&](const Row& row) {
                batch.add(row);
                return gate.isOpen();
            },
            verdict.rows);
        if (refusal) {
            addRefusal(transport, refusal->message, refusal->position);
            verdict = refused(statusOf(refusal->error), refusal->message, refusal->position);
        } else if (verdict.rows == 0) {
            verdict.status = STORE_ZERO_MATCHES;
        } else {
            batch.finish(transport);
        }
        verdict.isProbe = query.limit == 0;
    }
    gate.pass([&] {
        if (!question.begunSubject.empty() && kvx::isLongAnswer(question.version, verdict.rows)) {
            kvx::tellBegun(engine, question.begunSubject, question.replySubject);
        }
        if (send(transport, question, verdict)) return;
        verdict = refused(STORE_PERMISSION_DENIED, "the rows are too large for a message", 0);
        transport.RTPurge();
        addRefusal(transport, verdict.reason, 0);
        static_cast<void>(send(transport, question, verdict));
    });
    return verdict;
}

void refuse(CVekEngine& engine, const Question& question, const std::string& reason) {
    CVekTransport transport(&engine);
    addRefusal(transport, reason, 0);
    static_cast<void>(send(transport, question, refused(STORE_PERMISSION_DENIED, reason, 0)));
}

}  // namespace modeld
