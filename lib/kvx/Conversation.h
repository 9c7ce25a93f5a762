// An answer is a conversation. Every packet of it carries as its reply subject an inbox of the
// member that answers, so the querier can tell two answerers apart and speak to the one it listens
// to. A question may say up to which packet it wants to be sent (its window); the querier then
// grants more as it takes, and ends the answer when it wants no more:
//
//     querier -> query subject   QryInfoOQLStr, QryInfoVersion, QryInfoWindow = 8
//     member  -> querier's inbox packets 1 to 8, reply subject: the member's inbox
//     querier -> member's inbox  inbox = the querier's inbox, upTo = 72
//     member  -> querier's inbox packets 9 to 72 ...
//
// In such an answer a packet that is not the last one may be sent before the number of packets is
// known; its count is 0 then. Without a window in the question all packets come unasked, each with
// the count. Services that know nothing of this send packets without a reply subject and ignore the
// window; queriers that do not know it ignore the reply subject.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "rv/rv.h"

namespace kvx::conversation {

/// The field of a question with its window, an unsigned 32-bit number.
inline constexpr const char* kWindowField = "QryInfoWindow";

/// Packets that a question asks for; small, so that an answer to nobody costs little.
inline constexpr std::uint32_t kFirstWindow = 8;
/// Packets that a querier lets come beyond those it has taken.
inline constexpr std::uint32_t kWindow = 64;

namespace field {
inline constexpr const char* kInbox = "inbox";
inline constexpr const char* kUpTo = "upTo";
}  // namespace field

/// The inbox that a message of a conversation names; nothing for what is no such message.
inline std::optional<std::string> readInbox(const RvDatum& data) {
    if (data.type() != RVMSG_MSG) return std::nullopt;
    const auto& message = static_cast<const RvMsg&>(data);
    RvDatum inbox;
    if (!(message.get(field::kInbox, inbox) == RvStatus(0))) return std::nullopt;
    std::vector<char> text(inbox.size() + 1);
    if (!(inbox.getString(text.data(), text.size()) == RvStatus(0))) return std::nullopt;
    return text.data();
}

/// What a querier tells the member that answers it.
struct Take {
    std::string inbox;       ///< where the answer goes
    std::uint32_t upTo = 0;  ///< the number of the last packet that may be sent; 0 ends the answer
};

inline RvMsg takeMessage(const Take& take) {
    RvMsg message(0UL);
    message.append(field::kInbox, take.inbox.c_str());
    message.append(field::kUpTo, take.upTo);
    return message;
}

/// Nothing for what is no such message.
inline std::optional<Take> readTake(const RvDatum& data) {
    auto inbox = readInbox(data);
    if (!inbox) return std::nullopt;
    const auto& message = static_cast<const RvMsg&>(data);
    unsigned long upTo = 0;
    if (!(message.get(field::kUpTo, upTo) == RvStatus(0))) return std::nullopt;
    return Take{std::move(*inbox), static_cast<std::uint32_t>(upTo)};
}

/// The subject on which the members of a group tell one another which answers of several packets
/// have begun, made from the subject on which they hear their questions.
inline std::string begunSubject(const std::string& querySubject) {
    return "KVX.BEGUN." + querySubject;
}

/// Says that the answer that goes to `inbox` has begun; `readInbox` reads it.
inline RvMsg begunMessage(const std::string& inbox) {
    RvMsg message(0UL);
    message.append(field::kInbox, inbox.c_str());
    return message;
}

/// The window of a question; nothing when it has none, and for a window of 0.
inline std::optional<std::uint32_t> readWindow(const RvDatum& question) {
    if (question.type() != RVMSG_MSG) return std::nullopt;
    const auto& message = static_cast<const RvMsg&>(question);
    unsigned long window = 0;
    if (!(message.get(kWindowField, window) == RvStatus(0)) || window == 0) return std::nullopt;
    return static_cast<std::uint32_t>(window);
}

}  // namespace kvx::conversation
