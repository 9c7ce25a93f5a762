#include "rvd/Inquiry.h"

#include <algorithm>
#include <limits>
#include <string>
#include <utility>

#include "rv/message/WireFormat.h"
#include "rv/wire/ControlMessage.h"

namespace kvx::rvd {
namespace {

std::optional<Subject> subjectOf(const std::optional<WireField>& field) {
    if (!field) return std::nullopt;
    if (field->type == RVMSG_SUBJECT) {
        const auto view = SubjectView::parse(field->data, field->size);
        return view ? std::optional(Subject(*view)) : std::nullopt;
    }
    const auto text = field->text();
    return text ? Subject::fromText(std::string(*text).c_str()) : std::nullopt;
}

// 0 for another type.
std::uint64_t numberOf(const std::optional<WireField>& field) {
    const bool isNumber = field && (field->type == RVMSG_UINT || field->type == RVMSG_INT ||
                                    field->type == RVMSG_BOOLEAN);
    std::uint64_t number = 0;
    if (!isNumber || field->size > sizeof number) return 0;
    for (const std::uint8_t byte : field->bytes()) number = number << 8U | byte;
    return number;
}

}  // namespace

std::optional<Inquiry> readInquiry(DaemonSubject about, wire::Bytes message) {
    auto reply = subjectOf(findField(message, wire::field::kReturn));
    if (!reply) return std::nullopt;
    Inquiry inquiry{about, std::move(*reply), std::nullopt};
    const auto data = findField(message, wire::field::kData);
    if (data && data->type == RVMSG_MSG) {
        const wire::Bytes options = data->bytes();
        inquiry.subject = subjectOf(findField(options, "subject"));
        inquiry.limit = static_cast<std::uint32_t>(std::min<std::uint64_t>(
            numberOf(findField(options, "limit")), std::numeric_limits<std::uint32_t>::max()));
        inquiry.wantsFields = numberOf(findField(options, "fields")) != 0;
    }
    const bool needsSubject = about == DaemonSubject::Trace || about == DaemonSubject::Latency;
    if (needsSubject && !inquiry.subject) return std::nullopt;
    return inquiry;
}

}  // namespace kvx::rvd
