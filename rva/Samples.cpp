#include "rva/Samples.h"

#include <fmt/format.h>

#include "platform/Text.h"

namespace kvx::rva {

namespace {

// In UTF-8 and without control characters, whatever a session has called itself.
std::string labelValue(std::string_view text) {
    std::string value;
    for (const char c : shortened(oneLine(text), Samples::kMostLabelBytes)) {
        if (c == '\\' || c == '"') value += '\\';
        value += c;
    }
    return value;
}

}  // namespace

void Samples::add(double value, const Labels& labels) {
    std::string written;
    for (const auto& [name, text] : labels) {
        written += fmt::format("{}{}=\"{}\"", written.empty() ? "{" : ",", name, labelValue(text));
    }
    values_[written.empty() ? written : written + "}"] += value;
}

std::string Samples::text(std::string_view metric) const {
    std::string lines;
    for (const auto& [labels, value] : values_) {
        lines += fmt::format("{}{} {}\n", metric, labels, value);
    }
    return lines;
}

}  // namespace kvx::rva
