#include "rva/EventSink.h"

#include <fmt/format.h>

namespace kvx::rva {

namespace {

constexpr int kQuietTicks = 15;

std::string lastWords(std::string_view code, std::string_view text) {
    std::string error = errorBody(code, text);
    error.pop_back();
    return eventText("end", error);
}

}  // namespace

std::string eventText(std::string_view name, std::string_view data, std::string_view id) {
    const std::string idLine = id.empty() ? std::string() : fmt::format("id: {}\n", id);
    return fmt::format("event: {}\n{}data: {}\n\n", name, idLine, data);
}

bool EventSink::start() {
    if (answer_->hasStarted()) return answer_->isOpen();
    // Proxies that gather an answer would hold events back.
    return answer_->start({.type = "text/event-stream", .headers = {{"X-Accel-Buffering", "no"}}},
                          lastWords) &&
           answer_->offer("retry: 2000\n\n");
}

std::string EventSink::droppedEvent() const {
    return dropped_ == 0 ? std::string()
                         : eventText("dropped", fmt::format("{{\"messages\":{}}}", dropped_));
}

void EventSink::send(std::string_view event) {
    const bool isSent =
        dropped_ == 0 ? answer_->offer(event) : answer_->offer(droppedEvent().append(event));
    dropped_ = isSent ? 0 : dropped_ + 1;
    quietTicks_ = 0;
}

void EventSink::tick() {
    if (dropped_ != 0 && answer_->offer(droppedEvent())) dropped_ = 0;
    if (++quietTicks_ < kQuietTicks) return;
    quietTicks_ = 0;
    answer_->offer(": quiet\n\n");
}

void EventSink::refuse(int status, std::string_view code, std::string_view text) {
    if (!answer_->reply(errorReply(status, code, text))) answer_->giveUp(code, text);
}

}  // namespace kvx::rva
