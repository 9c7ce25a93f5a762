#include "rva/RowWriter.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <utility>

#include "kvx/Record.h"
#include "tools/bus/Base64.h"
#include "tools/bus/MessageJson.h"
#include "tools/bus/QueryColumns.h"

namespace kvx::rva {

using bus::Json;

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
    return "\"query\":" + bus::lineOf(Json{{"service", query.service}});
}

// No two names of a record have the same key.
std::string keyOf(std::string_view name) {
    constexpr std::string_view kEncoded = "base64:";
    const bool isPlain = bus::textJson(name).is_string() && !name.starts_with(kEncoded);
    return isPlain ? std::string(name) : std::string(kEncoded) + bus::toBase64(name);
}

// A row as an object, its fields in order.
Json rowJson(const Record& record) {
    Json row = Json::object();
    for (const Field field : record) {
        Json& value = row[keyOf(field.name)];
        if (field.value.kind() == Value::Kind::Integer) {
            const auto number = *field.value.as<std::int64_t>();
            const bool isSafe = number <= bus::kMostExact && number >= -bus::kMostExact;
            value = isSafe ? Json(number) : Json{{"integer", std::to_string(number)}};
        } else if (const auto text = field.value.as<std::string_view>()) {
            value = bus::textJson(*text);
        } else if (const auto bytes = field.value.as<Value::Bytes>()) {
            const auto* const data = reinterpret_cast<const char*>(bytes->data());
            value = {{"bytes", bus::toBase64({data, bytes->size()})}};
        }
    }
    return row;
}

class NdJsonWriter : public RowWriter {
  public:
    explicit NdJsonWriter(const Query& query) : head_("{" + queryMember(query) + "}\n") {}
    std::string type() const override { return "application/x-ndjson"; }
    std::string begin() override { return head_; }
    std::optional<std::string> row(const Record& record) override {
        return "{\"row\":" + bus::lineOf(rowJson(record)) + "}\n";
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
        return std::exchange(separator_, ",\n") + bus::lineOf(rowJson(record));
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
                if (!isOf(columns_[i], field.name, record)) continue;
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
    // A query may spell a column in another case, where none is of its own spelling.
    static bool isOf(const std::string& column, std::string_view name, const Record& record) {
        return column == name || (bus::equalIgnoringCase(column, name) && !record.contains(column));
    }
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
            bus::lineOf(Json{{"error", std::move(json)}}) + "\n"};
}

}  // namespace kvx::rva
