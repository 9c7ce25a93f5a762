// A beat is encoded into one buffer, sized by its two texts. Decoding accepts any field order and
// ignores unknown fields; a missing field but "sent", a wrong type or size, a text without its
// terminator, an unknown state and another group's name make it no beat.

#include "rv/ft/GroupMessage.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "rv/message/SubjectView.h"
#include "rv/message/rvmsg.h"

namespace kvx::ft {

namespace {

constexpr std::size_t kMaximumId = 255;
constexpr std::size_t kFixedBytes = 128;  // of a beat without its two texts

class BeatReader {
  public:
    explicit BeatReader(const void* message) : message_(message) {}

    std::optional<std::string> text(const char* name) {
        if (!find(name, RVMSG_STRING) || size_ == 0) return std::nullopt;
        const auto* begin = static_cast<const char*>(data_);
        if (strnlen(begin, size_) != size_ - 1) return std::nullopt;
        return std::string(begin, size_ - 1);
    }

    template <class Number>
    std::optional<Number> number(const char* name) {
        if (!find(name, RVMSG_UINT) || size_ != sizeof(Number)) return std::nullopt;
        Number value = 0;
        std::memcpy(&value, data_, sizeof value);
        return value;
    }

  private:
    bool find(const char* name, rvmsg_Type wanted) {
        rvmsg_Type type = RVMSG_BADDATA;
        return rvmsg_Get(scratch_.data(), message_, name, &type, &size_, &data_) == 0 &&
               type == wanted;
    }

    const void* message_;
    alignas(double) std::array<unsigned char, 16> scratch_{};
    rvmsg_Size size_ = 0;
    rvmsg_Data data_ = nullptr;
};

bool isState(std::uint32_t value) {
    return value >= static_cast<std::uint32_t>(MemberState::Waiting) &&
           value <= static_cast<std::uint32_t>(MemberState::Leaving);
}

}  // namespace

std::optional<std::string> groupSubject(std::string_view group) {
    if (group.empty() || group.size() > kMaxSubjectElementText) return std::nullopt;
    std::string element(group);
    std::replace(element.begin(), element.end(), '.', '_');
    if (element == "*" || element == ">") return std::nullopt;
    std::string subject = "_RVFT." + element;
    return Subject::fromText(subject.c_str()) ? std::optional(subject) : std::nullopt;
}

std::vector<unsigned char> encodeBeat(const Beat& beat, const std::string& group) {
    std::vector<unsigned char> message(kFixedBytes + beat.rank.id.size() + group.size());
    const auto capacity = static_cast<rvmsg_Size>(message.size());
    const auto state = static_cast<std::uint32_t>(beat.state);
    const auto sent = static_cast<std::uint64_t>(beat.sent);
    void* to = message.data();
    const bool complete =
        rvmsg_Init(to, capacity) == 0 &&
        rvmsg_Append(to, capacity, "id", RVMSG_STRING, 0, beat.rank.id.c_str()) == 0 &&
        rvmsg_Append(to, capacity, "weight", RVMSG_UINT, sizeof beat.rank.weight,
                     &beat.rank.weight) == 0 &&
        rvmsg_Append(to, capacity, "start", RVMSG_UINT, sizeof beat.rank.start, &beat.rank.start) ==
            0 &&
        rvmsg_Append(to, capacity, "state", RVMSG_UINT, sizeof state, &state) == 0 &&
        rvmsg_Append(to, capacity, "group", RVMSG_STRING, 0, group.c_str()) == 0 &&
        rvmsg_Append(to, capacity, "sent", RVMSG_UINT, sizeof sent, &sent) == 0;
    if (!complete) message.clear();
    return message;
}

std::optional<Beat> decodeBeat(const void* message, const std::string& group) {
    BeatReader reader(message);
    if (reader.text("group") != group) return std::nullopt;
    auto id = reader.text("id");
    const auto weight = reader.number<std::uint32_t>("weight");
    const auto start = reader.number<std::uint64_t>("start");
    const auto state = reader.number<std::uint32_t>("state");
    const auto sent = reader.number<std::uint64_t>("sent");
    if (!id || id->empty() || id->size() > kMaximumId) return std::nullopt;
    if (!weight || !start || !state || !isState(*state)) return std::nullopt;
    return Beat{.rank = {.weight = *weight, .start = *start, .id = std::move(*id)},
                .state = static_cast<MemberState>(*state),
                .sent = static_cast<Time>(sent.value_or(0))};
}

}  // namespace kvx::ft
