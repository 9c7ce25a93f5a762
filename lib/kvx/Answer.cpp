// The packets of an answer may come in any order. Two services that answer one question, or a
// service that answers it twice, give numbers that repeat or disagree about how many there are:
// such an answer is mixed, and none of its rows can be trusted to be all or to be there once.

#include "kvx/Answer.h"

#include "mom/transport/TransportPacket.h"
#include "platform/Memory.h"

namespace kvx::detail {

namespace {

std::optional<packet::Header> headerOf(const RvMsg& message) {
    RvDatum field;
    if (!(message.get("a", field) == RvStatus(0))) return std::nullopt;
    return packet::readHeader({static_cast<const unsigned char*>(field.data()), field.size()});
}

Rows decoded(CVekTransport& transport, std::size_t& unreadable) {
    Rows rows;
    const std::unique_ptr<CVekBag> atoms(transport.RTDecodes());
    rows.reserve(atoms->RBSize());
    for (unsigned i = 0; i < atoms->RBSize(); ++i) {
        const std::unique_ptr<CVekAtom> atom(static_cast<CVekAtom*>(atoms->RBGet(i)));
        unsigned char* bytes = nullptr;
        int length = 0;
        atom->RAUChar(&bytes, &length);
        auto record = Record::decode(
            {reinterpret_cast<const std::byte*>(bytes), static_cast<std::size_t>(length)});
        record ? rows.push_back(std::move(*record)) : void(++unreadable);
    }
    return rows;
}

std::string statusText(EVekStoreErrorStatus status) {
    const Text text(CVekTransport::RTPrintError(status, ""));
    std::string words = text ? text.get() : "";
    // The text stands between "( " and " )", with a blank of its own in front.
    return words.size() > 5 ? words.substr(3, words.size() - 5) : words;
}

}  // namespace

Answer::State Answer::take(const RvDatum& data) {
    if (data.type() != RVMSG_MSG) return State::Waiting;
    RvMsg message(static_cast<const RvMsg&>(data));
    const auto header = headerOf(message);
    if (!header || transport_.RTAddMessage(&message) != 1) return State::Waiting;
    if (numbers_.empty()) count_ = header->count;
    const bool isNew = numbers_.insert(header->sequence).second;
    if (!isNew || header->count != count_ || header->sequence < 1 || header->sequence > count_) {
        return State::Mixed;
    }
    return static_cast<std::int64_t>(numbers_.size()) == count_ ? State::Complete : State::Waiting;
}

QueryResult Answer::result(const std::string& tried) {
    std::size_t unreadable = 0;
    Rows rows = decoded(transport_, unreadable);
    const EVekStoreErrorStatus status = transport_.RTError();
    if (status != STORE_COMPLETE && status != STORE_ZERO_MATCHES) {
        const auto reason =
            rows.size() == 1 ? rows.front().get<std::string>("error") : std::nullopt;
        return tl::unexpected(QueryError{
            {Errc::Refused, reason.value_or(statusText(status)), tried}, std::move(rows)});
    }
    if (unreadable == 0) return rows;
    return tl::unexpected(QueryError{
        {Errc::Partial, std::to_string(unreadable) + " records could not be read", tried},
        std::move(rows)});
}

QueryResult Answer::failure(Errc code, std::string text, const std::string& tried) {
    std::size_t unreadable = 0;
    return tl::unexpected(
        QueryError{{code, std::move(text), tried}, decoded(transport_, unreadable)});
}

Rows recordsOf(const RvDatum& data) {
    if (data.type() != RVMSG_MSG) return {};
    RvMsg message(static_cast<const RvMsg&>(data));
    CVekTransport transport(nullptr);
    std::size_t unreadable = 0;
    if (!headerOf(message) || transport.RTAddMessage(&message) != 1) return {};
    return decoded(transport, unreadable);
}

}  // namespace kvx::detail
