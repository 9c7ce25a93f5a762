#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kvx::bench {

/// How messages travel: as bare bytes through the relay; framed for the router; as messages of the
/// bus through rvd, between sockets or between sessions of the client library.
enum class Way : std::uint8_t { Relay, Router, Raw, Library };

/// The beginning of each message: which sender, the how manyth of it, and when.
struct Stamp {
    std::uint32_t sender = 0;
    std::uint32_t number = 0;
    std::int64_t time = 0;  // nanoseconds
};

using Subjects = std::vector<std::string>;

/// Ends the program, whatever its threads do.
[[noreturn]] void fail(const std::string& why);
void require(bool isDone, const char* what);

/// A subject that nobody else uses.
std::string newSubject();

/// Some connections that one thread uses. Every message is `size` bytes: in the library its
/// payload, elsewhere all of it.
struct Setup {
    std::uint16_t port = 0;
    std::size_t size = 128;
    std::vector<Subjects> listens;  ///< one entry a connection, patterns first; may be empty
    Subjects targets;               ///< that messages go to, in turn; of equal length
    std::size_t firstSender = 0;    ///< the number of the first connection as a sender
};

class Ends {
  public:
    Ends(const Setup& setup, bool checksOrder);
    virtual ~Ends() = default;
    Ends(const Ends&) = delete;
    Ends& operator=(const Ends&) = delete;

    /// Sends one message at once.
    virtual void send(std::size_t connection, Stamp stamp) = 0;
    /// Sends `count` messages, numbered from `first` on, as fast as they are taken.
    virtual void stream(std::size_t connection, std::uint32_t first, std::size_t count) = 0;

    using Each = std::function<void(const Stamp&)>;
    /// Receives until `count` messages have come, on all connections together. One that is missing,
    /// too many or out of order ends the program.
    void receive(std::size_t count, Each each = {});

    /// Messages received so far. Any thread.
    [[nodiscard]] std::size_t received() const { return received_.load(std::memory_order_relaxed); }

  protected:
    /// Receives until `isDone`.
    virtual void run() = 0;
    virtual void stop() {}
    void heard(std::size_t connection, const std::uint8_t* message);
    [[nodiscard]] bool isDone() const { return left_ == 0; }
    [[nodiscard]] const Setup& setup() const { return setup_; }

  private:
    static constexpr std::size_t kMaxSenders = 16;

    const Setup setup_;
    const bool checksOrder_;
    std::vector<std::uint32_t> next_;  // by connection and sender
    std::size_t left_ = 0;
    std::atomic<std::size_t> received_ = 0;
    Each each_;
};

/// Connected, and listening in force. Without `checksOrder` messages are only counted.
std::unique_ptr<Ends> connectEnds(Way way, const Setup& setup, bool checksOrder = true);
std::unique_ptr<Ends> connectRaw(Way way, const Setup& setup, bool checksOrder);
std::unique_ptr<Ends> connectLibrary(const Setup& setup);

/// A raw session of rvd that listens to `subjects`, for what it costs to have it.
class IdleSession {
  public:
    IdleSession(std::uint16_t port, const Subjects& subjects);
    IdleSession(IdleSession&&) noexcept;
    ~IdleSession();

  private:
    struct Link;
    std::unique_ptr<Link> link_;
};

}  // namespace kvx::bench
