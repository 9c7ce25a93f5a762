#pragma once

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

namespace modeld {

/// Reads comma-separated records: fields may stand in double quotes, with a doubled quote for a
/// quote inside, and may then hold commas and line ends. Memory is bounded by the longest record,
/// which may have at most `kMaxRecordBytes`.
class CsvReader {
  public:
    static constexpr std::size_t kMaxRecordBytes = 1024 * 1024;

    enum class Result { Record, End, Malformed };

    explicit CsvReader(const std::string& path);

    /// False when the file could not be opened.
    bool isOpen() const { return file_.is_open(); }

    /// The next record into `fields`. Malformed: a quote that is never closed, or a record that is
    /// too long; `line()` then says where it began.
    Result next(std::vector<std::string>& fields);

    /// The line, from 1, on which the last record began.
    std::uint64_t line() const { return recordLine_; }

  private:
    bool readQuoted(std::string& field, std::size_t& budget);
    int take();

    std::ifstream file_;
    std::uint64_t line_ = 1;
    std::uint64_t recordLine_ = 1;
};

}  // namespace modeld
