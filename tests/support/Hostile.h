#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kvx::test {

/// A way to trouble a daemon and everybody else on it.
struct Trouble {
    std::string name;
    std::string what;  ///< one line
};

[[nodiscard]] const std::vector<Trouble>& troubles();

/// Connections that all make the same trouble, a step at a time. One thread at a time.
class Troublemakers {
  public:
    /// `name` is one of `troubles`.
    Troublemakers(const std::string& name, int clients, std::uint16_t port);
    ~Troublemakers();
    Troublemakers(Troublemakers&&) noexcept;

    /// Each connection offers bytes once. False when no socket takes any now.
    bool step();

  private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace kvx::test
