// Which changes an answer already has in it, so that a querier can go on with the notices that come
// after it. A service counts the notices of its changes; the count begins anew, in a new epoch,
// whenever a member becomes active. The message of a packet carries ahead of the packet's own field
//
//     "s"  opaque, 16 bytes: the epoch and the number, 64 bits each, big-endian
//     "k"  opaque, in an answer to a question: texts that each end with a zero byte; the table of
//          the rows ("" for none), then the names of the fields that are their key
//
// Readers of packets take the last opaque field and ignore these.

#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/Export.h"
#include "rv/rv.h"

namespace kvx {

/// A point in the changes of a service: after notice `number` of `epoch`. Number 0 is the beginning
/// of an epoch. Stamps of two epochs have no order.
struct Stamp {
    std::uint64_t epoch = 0;  ///< 0 is none
    std::uint64_t number = 0;

    friend bool operator==(const Stamp&, const Stamp&) = default;
};

/// Where the rows of an answer come from.
struct RowSource {
    std::string table;             ///< as in the changes' field "@table"; empty: all changes
    std::vector<std::string> key;  ///< fields that tell one row from another; empty: all fields

    friend bool operator==(const RowSource&, const RowSource&) = default;
};

/// Appends "s", to a message that has no packet yet. False without memory.
KVX_API bool appendStamp(RvMsg& message, const Stamp& stamp);
/// Appends "k" likewise.
KVX_API bool appendSource(RvMsg& message, const RowSource& source);

/// Nothing when the message has no such field, or not one of this form.
KVX_API std::optional<Stamp> readStamp(const RvDatum& data);
KVX_API std::optional<RowSource> readSource(const RvDatum& data);

namespace stamp_field {
/// Of a question instead of a text: the changes after its stamp are asked for.
inline constexpr const char* kSince = "QryInfoSince";
}  // namespace stamp_field

/// The question for the changes after `stamp`.
KVX_API RvMsg historyQuestion(const Stamp& stamp);
/// The stamp of such a question; nothing when it is none.
KVX_API std::optional<Stamp> readHistoryQuestion(const RvDatum& question);

}  // namespace kvx
