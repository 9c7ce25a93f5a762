#include "rvd/DataLoss.h"

#include <algorithm>
#include <array>
#include <limits>

#include "rv/error/rvAdvisory.h"
#include "rv/message/WireFormat.h"
#include "rv/message/rvSubject.h"
#include "rv/message/rvmsg.h"
#include "rv/wire/ControlMessage.h"

namespace kvx::rvd {
namespace {

constexpr std::size_t kBodyCapacity = 512;  // bytes; the fields are of bounded length
constexpr unsigned kSubjectBytes = 64;

constexpr const char* kDropped = "Messages for this session were dropped by the daemon";
constexpr const char* kLostBetween = "Messages for this session were lost between hosts";

struct CauseName {
    LossCause cause;
    const char* text;
};
constexpr std::array<CauseName, 6> kCauseNames = {{
    {LossCause::SlowReader, "slow reader"},
    {LossCause::Memory, "daemon memory"},
    {LossCause::TooLarge, "message too large"},
    {LossCause::Patterns, "patterns take more than 1024 steps"},
    {LossCause::Listens, kTooManyListens},
    {LossCause::Link, "link"},
}};

bool fillBody(void* body, const Loss& loss) {
    const auto lost = static_cast<std::uint32_t>(
        std::min<std::uint64_t>(loss.messages, std::numeric_limits<std::uint32_t>::max()));
    const std::string cause = causeText(loss.causes);
    const bool isBetween = loss.causes == static_cast<std::uint8_t>(LossCause::Link);
    return rvmsg_Init(body, kBodyCapacity) == 0 &&
           rvmsg_AppendAdvisoryFields(body, kBodyCapacity, advisory::kWarn, advisory::kSystem,
                                      advisory::kDataLossName,
                                      isBetween ? kLostBetween : kDropped) == 0 &&
           rvmsg_Append(body, kBodyCapacity, "lost", RVMSG_UINT, sizeof lost, &lost) == 0 &&
           rvmsg_Append(body, kBodyCapacity, "bytes", RVMSG_UINT, sizeof loss.bytes, &loss.bytes) ==
               0 &&
           rvmsg_Append(body, kBodyCapacity, "cause", RVMSG_STRING, 0, cause.c_str()) == 0;
}

}  // namespace

std::string causeText(std::uint8_t causes) {
    std::string text;
    for (const auto& name : kCauseNames) {
        if ((causes & static_cast<std::uint8_t>(name.cause)) == 0) continue;
        if (!text.empty()) text += ", ";
        text += name.text;
    }
    return text;
}

std::vector<std::uint8_t> buildDataLoss(const Loss& loss) {
    std::array<std::uint8_t, kBodyCapacity> body{};
    std::array<std::uint8_t, kSubjectBytes> subject{};
    const int length =
        rvSubject_FromText(subject.data(), kSubjectBytes, advisory::kDataLossSubject);
    if (length < 0 || !fillBody(body.data(), loss)) return {};
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
