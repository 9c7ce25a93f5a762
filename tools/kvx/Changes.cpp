#include "tools/kvx/Changes.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <chrono>
#include <memory>

#include "platform/Text.h"
#include "tools/bus/Complain.h"
#include "tools/bus/DatumJson.h"
#include "tools/kvx/Rows.h"

namespace kvx::tool {

namespace {

constexpr const char* kChangeField = "@change";
constexpr const char* kTableField = "@table";

// Milliseconds since the epoch as ISO 8601 in UTC.
std::string timeText(std::int64_t ms) {
    const auto seconds = fmt::gmtime(static_cast<std::time_t>(ms / 1000));
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", seconds, ms % 1000);
}

bool isColumn(const std::string& name) {
    return name != kChangeField && name != kTableField;
}

// Unchanged when unambiguous, else in double quotes with escapes.
std::string plainOrQuoted(const std::string& text) {
    const std::string shown = printable(text);
    const bool plain = !text.empty() && shown.find_first_of(" \"\\") == std::string::npos;
    return plain ? text : bus::jsonString(text);
}

std::string orHyphen(const CVekAtom* value) {
    return value != nullptr ? plainOrQuoted(valueText(value)) : "-";
}

std::string textLine(const CVekBaseRecord& row, std::int64_t cameAtMs) {
    std::string line =
        fmt::format("{} {} {}", timeText(cameAtMs), orHyphen(row.RRGetValue(kChangeField)),
                    orHyphen(row.RRGetValue(kTableField)));
    for (int i = 0; i < row.RRSize(); ++i) {
        const std::string name = row.RRNameAt(i);
        if (!isColumn(name)) continue;
        line += " " + plainOrQuoted(name) + "=" + plainOrQuoted(valueText(row.RRValueAt(i)));
    }
    return line;
}

std::string jsonLine(const CVekBaseRecord& row, std::int64_t cameAtMs) {
    std::string columns;
    for (int i = 0; i < row.RRSize(); ++i) {
        const std::string name = row.RRNameAt(i);
        if (!isColumn(name)) continue;
        columns += columns.empty() ? "" : ",";
        columns += bus::jsonString(name) + ":" + jsonValue(row.RRValueAt(i));
    }
    return fmt::format(R"({{"time":"{}","change":{},"table":{},"row":{{{}}}}})", timeText(cameAtMs),
                       jsonValue(row.RRGetValue(kChangeField)),
                       jsonValue(row.RRGetValue(kTableField)), columns);
}

std::unique_ptr<CVekBaseRecord> recordIn(const CVekAtom& atom) {
    unsigned char* bytes = nullptr;
    int length = 0;
    if (atom.RAUChar(&bytes, &length) != kOk) return nullptr;
    return std::unique_ptr<CVekBaseRecord>(CVekBaseRecord::ROMDecode(bytes, length));
}

}  // namespace

std::string changeLine(const CVekBaseRecord& row, std::int64_t cameAtMs, bool json) {
    return json ? jsonLine(row, cameAtMs) : textLine(row, cameAtMs);
}

std::vector<std::string> changesIn(const RvDatum& datum, std::int64_t cameAtMs,
                                   const ChangeFormat& format) {
    std::vector<std::string> lines;
    if (datum.type() != RVMSG_MSG) {
        bus::complain("a message that is no packet has been ignored");
        return lines;
    }
    RvMsg message(const_cast<rvmsg_Msg>(datum.data()));
    CVekTransport transport(nullptr);
    transport.RTAddMessage(&message);
    const std::unique_ptr<CVekBag> bag(transport.RTDecodes());
    for (unsigned i = 0; i < bag->RBSize(); ++i) {
        const std::unique_ptr<CVekAtom> atom(static_cast<CVekAtom*>(bag->RBGet(i)));
        const auto row = recordIn(*atom);
        if (!row) {
            bus::complain("bytes that are no record have been ignored");
            continue;
        }
        const CVekAtom* table = row->RRGetValue(kTableField);
        if (!format.table.empty() && (table == nullptr || valueText(table) != format.table)) {
            continue;
        }
        lines.push_back(changeLine(*row, cameAtMs, format.json));
    }
    return lines;
}

}  // namespace kvx::tool
