#pragma once

#include <iostream>
#include <sstream>
#include <streambuf>
#include <string>

namespace kvx::tool {

/// Keeps what the libraries write on `std::cout` and `std::cerr` while it exists. One at a time,
/// while no other thread writes there.
class Overheard {
  public:
    Overheard()
        : output_(std::cout.rdbuf(told_.rdbuf())), errors_(std::cerr.rdbuf(told_.rdbuf())) {}
    ~Overheard() {
        std::cout.rdbuf(output_);
        std::cerr.rdbuf(errors_);
    }
    Overheard(const Overheard&) = delete;
    Overheard& operator=(const Overheard&) = delete;

    [[nodiscard]] std::string text() const { return told_.str(); }

  private:
    std::ostringstream told_;
    std::streambuf* const output_;
    std::streambuf* const errors_;
};

}  // namespace kvx::tool
