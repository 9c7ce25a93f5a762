#pragma once

#include <functional>
#include <iostream>
#include <streambuf>
#include <utility>

namespace kvx::test {

/// Has `hook` run for every piece that is written to standard output while it lives. What the hook
/// throws comes out of the write: the stream throws its exceptions meanwhile.
class OutputHook : private std::streambuf {
  public:
    explicit OutputHook(std::function<void()> hook)
        : hook_(std::move(hook)), previous_(std::cout.rdbuf(this)) {
        std::cout.exceptions(std::ios::badbit | std::ios::failbit);
    }
    ~OutputHook() override {
        std::cout.exceptions(std::ios::goodbit);
        std::cout.rdbuf(previous_);
    }
    OutputHook(const OutputHook&) = delete;
    OutputHook& operator=(const OutputHook&) = delete;

  private:
    std::streamsize xsputn(const char*, std::streamsize size) override {
        hook_();
        return size;
    }
    int_type overflow(int_type character) override {
        hook_();
        return traits_type::not_eof(character);
    }

    std::function<void()> hook_;
    std::streambuf* previous_;
};

}  // namespace kvx::test
