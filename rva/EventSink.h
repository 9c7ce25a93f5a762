#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "rva/HttpAnswer.h"

namespace kvx::rva {

/// How often `EventSink::tick` is called.
inline constexpr unsigned long kEventTickMs = 1000;

/// One server-sent event. `data` is one line.
[[nodiscard]] std::string eventText(std::string_view name, std::string_view data,
                                    std::string_view id = {});

/// A client's stream of server-sent events. Bus thread only, except where stated.
class EventSink {
  public:
    explicit EventSink(HttpAnswerPtr answer) : answer_(std::move(answer)) {}

    /// Begins the stream, unless another sink of the same answer has. False when it has ended.
    bool start();
    /// Sends the event, or counts it as dropped when the client has no room.
    void send(std::string_view event);
    /// Called once a second: tells of what was dropped as soon as there is room, and every 15 s
    /// sends a comment.
    void tick();
    /// Sends the event unless the client has no room.
    bool offer(std::string_view event) { return answer_->offer(event); }
    /// Answers with an error, as the last event of a stream that has begun.
    void refuse(int status, std::string_view code, std::string_view text);

    [[nodiscard]] bool isOpen() const { return answer_->isOpen(); }

  private:
    [[nodiscard]] std::string droppedEvent() const;

    const HttpAnswerPtr answer_;
    std::uint64_t dropped_ = 0;
    int quietTicks_ = 0;
};

}  // namespace kvx::rva
