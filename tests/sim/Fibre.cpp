#include "tests/sim/Fibre.h"

#include <utility>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/common_interface_defs.h>
#else
namespace {
void __sanitizer_start_switch_fiber(void**, const void*, std::size_t) {}
void __sanitizer_finish_switch_fiber(void*, const void**, std::size_t*) {}
}  // namespace
#endif

namespace kvx::sim {

namespace {
Fibre* current = nullptr;
}

Fibre::Fibre(std::function<void()> body)
    : body_(std::move(body)), stack_(std::make_unique_for_overwrite<char[]>(kStack)) {
    getcontext(&inside_);
    inside_.uc_stack.ss_sp = stack_.get();
    inside_.uc_stack.ss_size = kStack;
    makecontext(&inside_, enter, 0);
}

void Fibre::resume() {
    current = this;
    void* fakeStack = nullptr;
    __sanitizer_start_switch_fiber(&fakeStack, stack_.get(), kStack);
    swapcontext(&outside_, &inside_);
    __sanitizer_finish_switch_fiber(fakeStack, nullptr, nullptr);
    current = nullptr;
}

void Fibre::yield() {
    current->switchOut();
}

void Fibre::switchOut() {
    __sanitizer_start_switch_fiber(ended_ ? nullptr : &fakeStack_, outerStack_, outerSize_);
    swapcontext(&inside_, &outside_);
    __sanitizer_finish_switch_fiber(fakeStack_, &outerStack_, &outerSize_);
}

void Fibre::enter() {
    Fibre& self = *current;
    __sanitizer_finish_switch_fiber(nullptr, &self.outerStack_, &self.outerSize_);
    self.body_();
    self.ended_ = true;
    self.switchOut();
}

}  // namespace kvx::sim
