#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kvx::tool {

/// A table of text: a line of headings and lines of as many cells. Columns are as wide as their
/// widest cell; those of numbers, whose heading begins with '>' (not shown), stand to the right.
class Table {
  public:
    explicit Table(std::vector<std::string> headings);

    void add(std::vector<std::string> cells);
    [[nodiscard]] std::size_t rows() const { return lines_.size() - 1; }

    /// The lines, headings first, without line ends; control characters as spaces.
    [[nodiscard]] std::vector<std::string> lines() const;
    /// Writes them to standard output.
    void print() const;

  private:
    std::vector<bool> isRight_;
    std::vector<std::vector<std::string>> lines_;
};

/// A number with its thousands in groups: "1,234,567".
std::string countText(std::uint64_t number);
/// A number of bytes: "999 B", "1.2 kB", "3.4 MB" (powers of 1,000).
std::string bytesText(double bytes);
/// A span of time: "850 ms", "12 s", "3 min", "5 h 12 min", "7 d 3 h".
std::string spanText(std::uint64_t milliseconds);
/// A rate: "0", "0.3", "12", "1,234" a second.
std::string rateText(double rate);

}  // namespace kvx::tool
