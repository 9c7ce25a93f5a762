#include "rvd/DataLoss.h"

#include <algorithm>
#include <array>
#include <limits>
#include <new>

#include "rv/error/rvAdvisory.h"
#include "rv/message/WireFormat.h"
#include "rv/message/rvSubject.h"
#include "rv/message/rvmsg.h"
#include "rv/wire/ControlMessage.h"

namespace kvx::rvd {
namespace {

constexpr std::size_t kBodyCapacity = 512;  // bytes; the fields but "dropped" are of bounded length
constexpr std::size_t kEmptyMessage = 8;    // bytes
constexpr std::size_t kNamedCost = 40;      // bytes of the two fields, without the subject
constexpr unsigned kSubjectBytes = 64;

constexpr const char* kDropped = "Messages for this session were dropped by the daemon";
constexpr const char* kLostBetween = "Messages for this session were lost between hosts";

bool fillBody(void* body, rvmsg_Size capacity, const Loss& loss) {
    const auto lost = static_cast<std::uint32_t>(
        std::min<std::uint64_t>(loss.messages, std::numeric_limits<std::uint32_t>::max()));
    const std::string cause = causeText(loss.causes);
    const bool isBetween = loss.causes == static_cast<std::uint8_t>(LossCause::Link);
    return rvmsg_Init(body, capacity) == 0 &&
           rvmsg_AppendAdvisoryFields(body, capacity, advisory::kWarn, advisory::kSystem,
                                      advisory::kDataLossName,
                                      isBetween ? kLostBetween : kDropped) == 0 &&
           rvmsg_Append(body, capacity, "lost", RVMSG_UINT, sizeof lost, &lost) == 0 &&
           rvmsg_Append(body, capacity, "bytes", RVMSG_UINT, sizeof loss.bytes, &loss.bytes) == 0 &&
           rvmsg_Append(body, capacity, "cause", RVMSG_STRING, 0, cause.c_str()) == 0;
}

}  // namespace

std::string causeText(std::uint8_t causes) {
    std::string text;
    for (unsigned bit = 0; bit < kLossCauseBits; ++bit) {
        if ((causes & (1U << bit)) == 0) continue;
        if (!text.empty()) text += ", ";
        text += textOf(static_cast<LossCause>(1U << bit));
    }
    return text;
}

void DroppedSubjects::add(wire::Bytes message) noexcept {
    const wire::Bytes name = wire::readRouting(message).subject;
    const auto subject = SubjectView::parse(name.data(), name.size());
    if (!subject) return;
    const std::string_view encoded = subject->encoded();
    const auto known = counts_.find(encoded);
    if (known != counts_.end()) {
        ++known->second;
        return;
    }
    if (kEmptyMessage + bytes_ + kNamedCost + encoded.size() > kMostBytes) return;
    try {
        counts_.emplace(encoded, 1);
        bytes_ += kNamedCost + encoded.size();
    } catch (const std::bad_alloc&) {
        return;
    }
}

std::vector<std::uint8_t> DroppedSubjects::build() const {
    std::vector<std::uint8_t> body(kEmptyMessage + bytes_);
    const auto capacity = static_cast<rvmsg_Size>(body.size());
    (void)rvmsg_Init(body.data(), capacity);
    for (const auto& [subject, lost] : counts_) {
        (void)rvmsg_Append(body.data(), capacity, "sub", RVMSG_SUBJECT, 0, subject.data());
        (void)rvmsg_Append(body.data(), capacity, "lost", RVMSG_UINT, sizeof lost, &lost);
    }
    return body;
}

void DroppedSubjects::save(StateWriter& state) const {
    state.number(counts_.size());
    for (const auto& [subject, lost] : counts_) {
        state.text(subject);
        state.number(lost);
    }
}

void DroppedSubjects::restore(StateReader& state) {
    for (std::uint64_t left = state.number(); left > 0; --left) {
        const std::string_view subject = state.text();
        counts_.emplace(subject, state.number());
        bytes_ += kNamedCost + subject.size();
    }
}

std::vector<std::uint8_t> buildDataLoss(const Loss& loss, const DroppedSubjects& dropped) {
    const auto named = dropped.empty() ? std::vector<std::uint8_t>() : dropped.build();
    std::vector<std::uint8_t> body(kBodyCapacity + named.size());
    const auto capacity = static_cast<rvmsg_Size>(body.size());
    std::array<std::uint8_t, kSubjectBytes> subject{};
    const int length =
        rvSubject_FromText(subject.data(), kSubjectBytes, advisory::kDataLossSubject);
    if (length < 0 || !fillBody(body.data(), capacity, loss)) return {};
    if (!named.empty()) {
        (void)rvmsg_Append(body.data(), capacity, "dropped", RVMSG_MSG, 0, named.data());
    }
    const auto built = wire::buildData({subject.data(), static_cast<std::size_t>(length)}, nullptr,
                                       0, {RVMSG_MSG, 0, body.data()});
    const wire::Bytes bytes = built.message.view();
    return {bytes.begin(), bytes.end()};
}

std::optional<LossReport> readLossReport(wire::Bytes message) {
    const auto data = findField(message, wire::field::kData);
    if (!data || data->type != RVMSG_MSG) return std::nullopt;
    const auto subject = findField(data->bytes(), "sub");
    const auto number = findField(data->bytes(), "lost");
    if (!subject || subject->type != RVMSG_SUBJECT || !number || number->type != RVMSG_UINT) {
        return std::nullopt;
    }
    const auto view = SubjectView::parse(subject->data, subject->size);
    std::uint64_t lost = 0;
    if (number->size == sizeof lost) lost = loadBig64(number->data);
    if (number->size == sizeof(std::uint32_t)) lost = loadBig32(number->data);
    if (!view || lost == 0) return std::nullopt;
    return LossReport{*view, lost};
}

}  // namespace kvx::rvd
