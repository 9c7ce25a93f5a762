#include "rvd/Successor.h"

#include <algorithm>
#include <charconv>
#include <string_view>
#include <utility>

#include "rvd/Version.h"

namespace kvx::rvd {
namespace {

constexpr platform::Milliseconds kAnswerMs = 10'000;
constexpr platform::Milliseconds kStateMs = 30'000;

constexpr std::string_view kHello = "hello ";
constexpr std::string_view kState = "state ";
constexpr std::string_view kDescriptors = "descriptors";
constexpr std::string_view kReady = "ready";
constexpr std::string_view kGo = "go";
constexpr std::string_view kNo = "no ";

std::span<const std::uint8_t> bytesOf(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::string textOf(const std::vector<std::uint8_t>& bytes) {
    return {bytes.begin(), bytes.end()};
}

std::uint64_t leadingNumber(std::string_view text) {
    std::uint64_t number = 0;
    (void)std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

std::string reasonIn(const std::string& text) {
    return text.starts_with(kNo) ? text.substr(kNo.size()) : "it says what is not understood";
}

}  // namespace

std::string Successor::start(platform::Program program) {
    auto ends = platform::DescriptorChannel::make();
    if (!ends) return "no descriptors for a channel";
    channel_.emplace(std::move(ends->first));
    program.inherited = ends->second.descriptor();
    const platform::Started started = platform::startChild(program);
    if (started.pid == 0)
        return program.path + ": " + std::generic_category().message(started.error);
    pid_ = started.pid;
    return {};
}

Successor::~Successor() {
    if (pid_ != 0) platform::killAndReap(pid_, 0);
}

std::string Successor::hear() {
    const auto message = channel_->receive(0);
    if (!message) return "it has ended before it said anything";
    const std::string text = textOf(message->bytes);
    if (!text.starts_with(kHello)) return reasonIn(text);
    const std::uint64_t state = leadingNumber(std::string_view(text).substr(kHello.size()));
    const auto space = text.find(' ', kHello.size());
    if (space != std::string::npos) version_ = text.substr(space + 1);
    if (state == stateVersion()) return {};
    std::string reason = "its state has version " + std::to_string(state) +
                         ", that of this daemon " + std::to_string(stateVersion());
    (void)channel_->send(bytesOf(std::string(kNo) + reason), {}, kAnswerMs);
    return reason;
}

std::string Successor::give(int state, std::span<const int> descriptors) {
    const std::string head = std::string(kState) + std::to_string(descriptors.size());
    bool isSent = channel_->send(bytesOf(head), std::span(&state, 1), kAnswerMs);
    while (isSent && !descriptors.empty()) {
        const auto some = descriptors.first(
            std::min(descriptors.size(), platform::DescriptorChannel::kMostDescriptors));
        isSent = channel_->send(bytesOf(kDescriptors), some, kAnswerMs);
        descriptors = descriptors.subspan(some.size());
    }
    const auto message = channel_->receive(kAnswerMs);
    if (!message) return "it has not become ready in time";
    const std::string text = textOf(message->bytes);
    return text == kReady ? "" : reasonIn(text);
}

bool Successor::go() {
    if (!channel_->send(bytesOf(kGo), {}, kAnswerMs)) return false;
    pid_ = 0;
    return true;
}

std::string Predecessor::takeOver(const std::string& version) {
    const std::string hello = std::string(kHello) + std::to_string(stateVersion()) + ' ' + version;
    if (!channel_.send(bytesOf(hello), {}, kAnswerMs)) return "nobody is to be replaced";
    auto message = channel_.receive(kStateMs);
    if (!message) return "no state has come";
    const std::string text = textOf(message->bytes);
    if (!text.starts_with(kState) || message->descriptors.size() != 1) return reasonIn(text);
    state_ = std::move(message->descriptors.front());
    std::uint64_t left = leadingNumber(std::string_view(text).substr(kState.size()));
    while (left > 0) {
        auto more = channel_.receive(kAnswerMs);
        if (!more || more->descriptors.empty() || more->descriptors.size() > left) {
            return "not all descriptors have come";
        }
        left -= more->descriptors.size();
        std::ranges::move(more->descriptors, std::back_inserter(descriptors_));
    }
    return {};
}

platform::Descriptor Predecessor::next() {
    return taken_ < descriptors_.size() ? std::move(descriptors_[taken_++])
                                        : platform::Descriptor();
}

bool Predecessor::begin() {
    (void)channel_.send(bytesOf(kReady), {}, kAnswerMs);
    const auto message = channel_.receive(platform::DescriptorChannel::kForever);
    return !message || textOf(message->bytes) == kGo;
}

void Predecessor::refuse(const std::string& reason) {
    (void)channel_.send(bytesOf(std::string(kNo) + reason), {}, kAnswerMs);
}

}  // namespace kvx::rvd
