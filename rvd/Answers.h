#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "rvd/Inquiry.h"
#include "rvd/Report.h"

namespace kvx::rvd {

/// The answers under way to one session, in the order of its inquiries.
///
/// An answer is one or more data messages on the inquiry's reply subject. The data of each is a
/// nested message: "part" (unsigned, 8 bytes, from 1), what the report writes, and in the last one
/// "last" (boolean, true). Loop thread only.
class Answers {
  public:
    /// Inquiries of one session that may wait.
    static constexpr std::size_t kMost = 16;
    /// Charged for one: its subjects and its report.
    static constexpr std::size_t kCost = 6 * 1024;

    /// False, and nothing is answered, when too many wait. Throws `std::bad_alloc`.
    [[nodiscard]] bool add(const Inquiry& inquiry, std::unique_ptr<Report> report);

    [[nodiscard]] bool empty() const { return waiting_.empty(); }
    /// Bytes of memory, an upper estimate.
    [[nodiscard]] std::size_t memory() const { return waiting_.size() * kCost; }

    /// The next message; empty when this piece of work has found nothing to say. There must be an
    /// answer under way. Throws `std::bad_alloc`; the answer is lost then.
    [[nodiscard]] std::vector<std::uint8_t> next();

  private:
    struct Answer {
        Subject reply;
        std::unique_ptr<Report> report;
        std::uint64_t parts = 0;  // sent
    };
    static std::vector<std::uint8_t> nextOf(Answer& answer, bool& hasMore);

    std::deque<Answer> waiting_;
};

}  // namespace kvx::rvd
