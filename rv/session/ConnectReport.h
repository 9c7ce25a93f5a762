#pragma once

#include <string>
#include <string_view>

/// What a connect has tried, for people who wonder why nobody was reached: "attempt 1: Connection
/// refused; started /usr/bin/rvd; attempts 2 to 4: Connection refused".
namespace kvx::session {

/// One thread's last connect. That thread only. Without memory it says less.
class ConnectReport {
  public:
    [[nodiscard]] static ConnectReport& ofThisThread();

    /// A connect begins: forgets the one before.
    void begin();
    /// The next attempt failed. Attempts that fail one after another in the same way are told once.
    void attemptFailed(const std::string& why) noexcept;
    void add(std::string_view what) noexcept;

    /// Valid until the next call on this thread.
    [[nodiscard]] const std::string& text() noexcept;

  private:
    void closeAttempts();
    void append(std::string_view what);

    std::string text_;
    std::string why_;  // of the attempts that are not in the text yet
    int first_ = 1;    // of them
    int next_ = 1;
};

}  // namespace kvx::session
