#pragma once

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

namespace modeld {

/// Reads comma-separated records: fields may be in double quotes, with a doubled quote for a quote
/// inside, and may then hold commas and line ends. Memory is bounded by the longest record, at most
/// `kMaxRecordBytes`.
class CsvReader {
  public:
    static constexpr std::size_t kMaxRecordBytes = 1024 * 1024;

    enum class Result { Record, End, Malformed, Unreadable };

    /// Opens a regular file. Other kinds cannot be read twice, and opening some of them blocks.
    explicit CsvReader(const std::string& path);

    /// The error of reading the file; empty for none.
    const std::string& problem() const { return problem_; }

    /// The next record into `fields`. Malformed: an unclosed quote, or a record that is too long,
    /// which begins at `line()`. Unreadable: see `problem()`.
    Result next(std::vector<std::string>& fields);

    /// The line, from 1, on which the last record began.
    std::uint64_t line() const { return recordLine_; }

  private:
    Result nextRecord(std::vector<std::string>& fields);
    bool readQuoted(std::string& field, std::size_t& budget);
    int take();

    std::ifstream file_;
    std::string problem_;
    std::uint64_t line_ = 1;
    std::uint64_t recordLine_ = 1;
};

}  // namespace modeld
