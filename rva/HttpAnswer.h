#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Clock.h"
#include "platform/Poll.h"

namespace kvx::rva {

inline constexpr const char* kJsonType = "application/json; charset=utf-8";

/// How long what is posted may wait for the bus's thread to take it.
inline constexpr std::chrono::seconds kHandOver(5);

/// An answer in one piece, or the head of one that is streamed.
struct HttpReply {
    int status = 200;
    std::string type = "text/plain; charset=utf-8";
    std::string body{};
    std::vector<std::pair<std::string, std::string>> headers{};  ///< further ones
};

/// The bytes of its head, with what every answer says of itself. `isStreamed`: chunks follow, not
/// `reply.body`.
[[nodiscard]] std::string headOf(const HttpReply& reply, bool isStreamed);

/// `{"error":{"code":code,"text":text}}`, and a line end.
[[nodiscard]] std::string errorBody(std::string_view code, std::string_view text);
[[nodiscard]] HttpReply errorReply(int status, std::string_view code, std::string_view text);

/// The answer to one request, which whoever makes it fills and the server empties.
///
/// Either `reply`, or `start`, pieces, and `finish` or `breakOff`. The filling side is any thread;
/// what it does after the end has no effect and returns false. A streamed answer ends when the
/// client goes, by closing its connection or its sending side, or takes nothing for too long.
class HttpAnswer {
  public:
    /// Bytes that may wait for the client, except for one piece of more that is written.
    static constexpr std::size_t kMostWaiting = 1U << 20U;

    /// `wakeUp` is the server's; kept alive by the answer.
    explicit HttpAnswer(std::shared_ptr<platform::WakeUp> wakeUp) : wakeUp_(std::move(wakeUp)) {}
    HttpAnswer(const HttpAnswer&) = delete;
    HttpAnswer& operator=(const HttpAnswer&) = delete;

    // --- The filling side ---

    /// The whole answer.
    bool reply(HttpReply reply);

    /// The head of a streamed answer. `lastWords` makes a last piece of a code and a text, for a
    /// client that is too slow; without it such an answer is broken off.
    using LastWords = std::function<std::string(std::string_view code, std::string_view text)>;
    bool start(const HttpReply& head, LastWords lastWords = {});

    /// Adds a piece when there is room for it, else does nothing. Never waits.
    bool offer(std::string_view piece);

    /// Waits for room and adds the piece; one that is larger than all room waits for an empty
    /// answer. False when the answer has ended. Not on the server's thread.
    bool write(std::string_view piece);

    /// The end of a whole answer; what waits is sent first.
    void finish();
    /// The end of one that is not whole: the client misses the last chunk.
    void breakOff();

    /// What is called once the answer has ended without its own `finish`, `breakOff` or `reply`;
    /// on the server's thread, or at once when it has. May drop this object, and must not wait.
    void onGone(std::function<void()> gone);

    /// The server answers 504 itself when nothing has come by then. Before the first byte.
    void expectWithin(std::chrono::milliseconds time);

    /// Keeps one of a quota until the server has taken all of the answer, or the client is gone.
    void hold(std::shared_ptr<const void> slot);

    [[nodiscard]] bool isOpen() const;
    [[nodiscard]] bool hasStarted() const;

    // --- The server's side ---

    struct Taken {
        std::string bytes;      ///< to be sent
        bool isWhole = false;   ///< they are all, and the answer has been given in order
        bool isBroken = false;  ///< they are all; it has broken off
    };
    /// What is to be sent next: at most about 64 KiB in whole pieces, framed.
    [[nodiscard]] Taken take();
    [[nodiscard]] bool hasSome() const;
    /// The client is not there any more, or has nothing more to expect.
    void goAway();
    /// Nobody fills it any more: an answer that has not ended says that the agent ends.
    void abandon();
    /// Ends it, with its last words after all that waits. False when it has none, or has ended.
    bool giveUp(std::string_view code, std::string_view text);
    [[nodiscard]] std::optional<platform::Milliseconds> deadline() const;

  private:
    enum class State { Waiting, Streaming, Finished, Broken, Gone };
    [[nodiscard]] bool isEnded() const { return state_ > State::Streaming; }
    void end(State state, std::unique_lock<std::mutex>& lock, bool isOwn);
    void append(std::string_view piece);

    const std::shared_ptr<platform::WakeUp> wakeUp_;
    mutable std::mutex mutex_;
    std::condition_variable hasRoom_;
    // Guarded by mutex_.
    State state_ = State::Waiting;
    bool isStreamed_ = false;
    std::string head_;
    std::deque<std::string> pieces_;
    std::size_t waiting_ = 0;  // bytes in pieces_
    std::shared_ptr<const void> slot_;
    LastWords lastWords_;
    std::function<void()> gone_;
    bool isGone_ = false;
    std::optional<platform::Milliseconds> deadline_;
};

/// An answer in the hands of whoever fills it; `abandon` is called when all have dropped it.
using HttpAnswerPtr = std::shared_ptr<HttpAnswer>;

}  // namespace kvx::rva
