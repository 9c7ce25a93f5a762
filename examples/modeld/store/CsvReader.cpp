// One pass over the bytes, one character of look-ahead. A record ends at a line end outside quotes;
// a carriage return before it is dropped, and a byte-order mark before the first record too.

#include "examples/modeld/store/CsvReader.h"

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace modeld {

namespace {

constexpr int kEnd = std::char_traits<char>::eof();

void skipByteOrderMark(std::ifstream& file) {
    char mark[3] = {};
    file.read(mark, 3);
    if (file.gcount() == 3 && std::string(mark, 3) == "\xef\xbb\xbf") return;
    file.clear();
    file.seekg(0);
}

}  // namespace

CsvReader::CsvReader(const std::string& path) {
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) {
        problem_ = "is not a regular file";
        return;
    }
    errno = 0;
    file_.open(path, std::ios::binary);
    if (file_.is_open()) {
        skipByteOrderMark(file_);
    } else {
        problem_ = "cannot be read: " + std::generic_category().message(errno);
    }
}

int CsvReader::take() {
    const int c = file_.get();
    if (c == '\n') ++line_;
    return c;
}

bool CsvReader::readQuoted(std::string& field, std::size_t& budget) {
    for (int c = take(); c != kEnd && budget != 0; c = take(), --budget) {
        if (c != '"') {
            field.push_back(static_cast<char>(c));
        } else if (file_.peek() == '"') {
            take();
            field.push_back('"');
        } else {
            return true;
        }
    }
    return false;
}

CsvReader::Result CsvReader::next(std::vector<std::string>& fields) {
    fields.clear();
    if (!problem_.empty()) return Result::Unreadable;
    errno = 0;
    const Result result = nextRecord(fields);
    if (!file_.bad()) return result;
    problem_ = "cannot be read: " + std::generic_category().message(errno);
    return Result::Unreadable;
}

CsvReader::Result CsvReader::nextRecord(std::vector<std::string>& fields) {
    recordLine_ = line_;
    if (file_.peek() == kEnd) return Result::End;
    std::size_t budget = kMaxRecordBytes;
    std::string field;
    for (; budget != 0; --budget) {
        const int c = take();
        if (c == '"' && field.empty()) {
            if (!readQuoted(field, budget)) return Result::Malformed;
        } else if (c == ',') {
            fields.push_back(std::move(field));
            field.clear();
        } else if (c == '\n' || c == kEnd) {
            fields.push_back(std::move(field));
            return Result::Record;
        } else if (c != '\r' || file_.peek() != '\n') {
            field.push_back(static_cast<char>(c));
        }
        if (budget == 0) break;
    }
    return Result::Malformed;
}

}  // namespace modeld
