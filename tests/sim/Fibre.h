#pragma once

#include <ucontext.h>

#include <cstddef>
#include <functional>
#include <memory>

namespace kvx::sim {

/// A function with a stack of its own, which runs until it yields or returns: one program of the
/// simulated world. One thread for all fibres.
class Fibre {
  public:
    explicit Fibre(std::function<void()> body);
    Fibre(const Fibre&) = delete;
    Fibre& operator=(const Fibre&) = delete;
    ~Fibre() = default;

    /// Runs the fibre until it yields or ends. Not from inside a fibre.
    void resume();
    /// Returns from the `resume` that runs the current fibre.
    static void yield();

    [[nodiscard]] bool ended() const { return ended_; }

  private:
    static constexpr std::size_t kStack = 512 * 1024;
    static void enter();
    void switchOut();

    std::function<void()> body_;
    std::unique_ptr<char[]> stack_;
    ucontext_t inside_{};
    ucontext_t outside_{};
    bool ended_ = false;
    // What the address sanitizer has to know of a switch.
    void* fakeStack_ = nullptr;
    const void* outerStack_ = nullptr;
    std::size_t outerSize_ = 0;
};

}  // namespace kvx::sim
