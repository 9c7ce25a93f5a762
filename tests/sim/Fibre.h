#pragma once

#include <ucontext.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <utility>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/common_interface_defs.h>
#else
inline void __sanitizer_start_switch_fiber(void**, const void*, std::size_t) {}
inline void __sanitizer_finish_switch_fiber(void*, const void**, std::size_t*) {}
#endif

namespace kvx::sim {

/// A function with a stack of its own, which runs until it yields or returns: one program of the
/// simulated world. One thread for all fibres.
class Fibre {
  public:
    explicit Fibre(std::function<void()> body) : body_(std::move(body)) {
        getcontext(&inside_);
        inside_.uc_stack.ss_sp = stack_.get();
        inside_.uc_stack.ss_size = kStack;
        makecontext(&inside_, enter, 0);
    }
    Fibre(const Fibre&) = delete;
    Fibre& operator=(const Fibre&) = delete;
    ~Fibre() = default;

    /// Runs the fibre until it yields or ends. Not from inside a fibre.
    void resume() {
        current = this;
        void* fakeStack = nullptr;
        __sanitizer_start_switch_fiber(&fakeStack, stack_.get(), kStack);
        swapcontext(&outside_, &inside_);
        __sanitizer_finish_switch_fiber(fakeStack, nullptr, nullptr);
        current = nullptr;
    }
    /// Returns from the `resume` that runs the current fibre.
    static void yield() { current->switchOut(); }

    [[nodiscard]] bool ended() const { return ended_; }

  private:
    static constexpr std::size_t kStack = 512 * 1024;
    static inline Fibre* current = nullptr;

    static void enter() {
        Fibre& self = *current;
        __sanitizer_finish_switch_fiber(nullptr, &self.outerStack_, &self.outerSize_);
        self.body_();
        self.ended_ = true;
        self.switchOut();
    }
    void switchOut() {
        __sanitizer_start_switch_fiber(ended_ ? nullptr : &fakeStack_, outerStack_, outerSize_);
        swapcontext(&inside_, &outside_);
        __sanitizer_finish_switch_fiber(fakeStack_, &outerStack_, &outerSize_);
    }

    std::function<void()> body_;
    std::unique_ptr<char[]> stack_ = std::make_unique_for_overwrite<char[]>(kStack);
    ucontext_t inside_{};
    ucontext_t outside_{};
    bool ended_ = false;
    // What the address sanitizer has to know of a switch.
    void* fakeStack_ = nullptr;
    const void* outerStack_ = nullptr;
    std::size_t outerSize_ = 0;
};

}  // namespace kvx::sim
