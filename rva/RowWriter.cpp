#include "rva/RowWriter.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <utility>

#include "rva/MessageJson.h"
#include "tools/bus/QueryColumns.h"

namespace kvx::rva {

namespace {

struct ErrorKind {
    Errc code;
    const char* name;
    int status;
};

constexpr std::array<ErrorKind, 11> kKinds = {{{Errc::InvalidArgument, "InvalidArgument", 400},
                                               {Errc::NoDaemon, "NoDaemon", 503},
                                               {Errc::Lost, "Lost", 503},
                                               {Errc::TimedOut, "TimedOut", 504},
                                               {Errc::Partial, "Partial", 502},
                                               {Errc::MixedAnswers, "MixedAnswers", 502},
                                               {Errc::Refused, "Refused", 422},
                                               {Errc::QueueFull, "QueueFull", 503},
                                               {Errc::NoMemory, "NoMemory", 503},
                                               {Errc::Ended, "Ended", 503},
                                               {Errc::Busy, "Busy", 503}}};

std::string queryMember(const Query& query) {
    return "\"query\":" + lineOf(Json{{"service", query.service}});
}

class NdJsonWriter : public RowWriter {
  public:
    explicit NdJsonWriter(const Query& query) : head_("{" + queryMember(query) + "}\n") {}
    std::string type() const override { return "application/x-ndjson"; }
    std::string begin() override { return head_; }
    std::optional<std::string> row(const Record& record) override {
        return "{\"row\":" + lineOf(rowJson(record)) + "}\n";
    }
    std::string end(const std::string& totals) override { return "{\"end\":" + totals + "}\n"; }
    std::optional<std::string> error(const std::string& error) const override { return error; }

  private:
    const std::string head_;
};

class JsonWriter : public RowWriter {
  public:
    explicit JsonWriter(const Query& query) : head_("{" + queryMember(query) + ",\"rows\":[") {}
    std::string type() const override { return "application/json; charset=utf-8"; }
    std::string begin() override { return head_; }
    std::optional<std::string> row(const Record& record) override {
        return std::exchange(separator_, ",\n") + lineOf(rowJson(record));
    }
    std::string end(const std::string& totals) override { return "\n],\"end\":" + totals + "}\n"; }
    std::optional<std::string> error(const std::string& error) const override {
        return "\n]," + error.substr(1);
    }

  private:
    const std::string head_;
    std::string separator_ = "\n";
};

class CsvWriter : public RowWriter {
  public:
    explicit CsvWriter(const Query& query) : columns_(bus::selectedColumns(query.text)) {}
    std::string type() const override { return "text/csv; charset=utf-8"; }
    std::string begin() override { return columns_.empty() ? std::string() : heading(); }
    std::optional<std::string> row(const Record& record) override {
        std::string text;
        if (columns_.empty()) {
            for (const Field field : record) columns_.emplace_back(field.name);
            text = heading();
        }
        std::vector<std::string> values(columns_.size());
        for (const Field field : record) {
            bool hasColumn = false;
            for (std::size_t i = 0; i < columns_.size(); ++i) {
                if (!bus::equalIgnoringCase(columns_[i], field.name)) continue;
                values[i] = field.value.toString();
                hasColumn = true;
            }
            if (!hasColumn) return std::nullopt;
        }
        return text + line(values);
    }
    std::string end(const std::string&) override { return {}; }
    std::optional<std::string> error(const std::string&) const override { return std::nullopt; }

  private:
    static std::string line(const std::vector<std::string>& values) {
        std::string text;
        for (const auto& value : values) {
            text += (&value == &values.front() ? "" : ",") + bus::csvField(value);
        }
        return text + "\r\n";
    }
    std::string heading() const { return line(columns_); }

    std::vector<std::string> columns_;
};

}  // namespace

std::unique_ptr<RowWriter> makeRowWriter(const Query& query) {
    switch (query.format) {
        case RowFormat::WholeJson:
            return std::make_unique<JsonWriter>(query);
        case RowFormat::Csv:
            return std::make_unique<CsvWriter>(query);
        default:
            return std::make_unique<NdJsonWriter>(query);
    }
}

HttpReply errorReplyOf(const QueryError& error) {
    const auto* const kind = std::ranges::find(kKinds, error.code, &ErrorKind::code);
    Json json = {{"code", kind->name},
                 {"text", error.text.empty() ? textOf(error.code) : error.text}};
    const auto position =
        error.rows.size() == 1 ? error.rows.front().get<std::int64_t>("position") : std::nullopt;
    if (error.code == Errc::Refused && position) json["position"] = *position;
    return {kind->status, "application/json; charset=utf-8",
            lineOf(Json{{"error", std::move(json)}}) + "\n"};
}

}  // namespace kvx::rva
