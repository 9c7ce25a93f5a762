#include "tools/kvx/Table.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

#include "platform/Text.h"
#include "tools/bus/Output.h"

namespace kvx::tool {

namespace {

// A longer cell makes its own line longer, not all of them.
constexpr std::size_t kMostWidth = 200;

// Of a text in UTF-8, in characters.
std::size_t widthOf(const std::string& text) {
    return static_cast<std::size_t>(
        std::ranges::count_if(text, [](char c) { return (c & '\xc0') != '\x80'; }));
}

}  // namespace

Table::Table(std::vector<std::string> headings) {
    for (auto& heading : headings) {
        isRight_.push_back(heading.starts_with('>'));
        if (isRight_.back()) heading.erase(0, 1);
    }
    lines_.push_back(std::move(headings));
}

void Table::add(std::vector<std::string> cells) {
    for (auto& cell : cells) cell = printable(cell);
    cells.resize(isRight_.size());
    lines_.push_back(std::move(cells));
}

std::vector<std::string> Table::lines() const {
    std::vector<std::size_t> widths(isRight_.size());
    for (const auto& cells : lines_) {
        for (std::size_t i = 0; i < cells.size(); ++i) {
            widths[i] = std::clamp(widthOf(cells[i]), widths[i], kMostWidth);
        }
    }
    std::vector<std::string> texts;
    for (const auto& cells : lines_) {
        std::string line;
        for (std::size_t i = 0; i < cells.size(); ++i) {
            const std::string fill(widths[i] - std::min(widths[i], widthOf(cells[i])), ' ');
            line += isRight_[i] ? fill + cells[i] : cells[i] + fill;
            line += "  ";
        }
        line.erase(line.find_last_not_of(' ') + 1);
        texts.push_back(std::move(line));
    }
    return texts;
}

void Table::print() const {
    for (const auto& line : lines()) bus::printLine(line);
}

std::string countText(std::uint64_t number) {
    std::string text = std::to_string(number);
    for (std::size_t at = text.size(); at > 3; at -= 3) text.insert(at - 3, ",");
    return text;
}

std::string bytesText(double bytes) {
    constexpr std::array<const char*, 5> kUnits = {"B", "kB", "MB", "GB", "TB"};
    std::size_t unit = 0;
    for (; bytes >= 999.5 && unit + 1 < kUnits.size(); ++unit) bytes /= 1'000;
    return unit == 0 ? fmt::format("{:.0f} B", bytes)
                     : fmt::format("{:.1f} {}", bytes, kUnits[unit]);
}

std::string spanText(std::uint64_t milliseconds) {
    if (milliseconds < 1'000) return fmt::format("{} ms", milliseconds);
    const std::uint64_t seconds = milliseconds / 1'000;
    if (seconds < 120) return fmt::format("{} s", seconds);
    const std::uint64_t minutes = seconds / 60;
    if (minutes < 60) return fmt::format("{} min", minutes);
    const std::uint64_t hours = minutes / 60;
    if (hours < 48) return fmt::format("{} h {} min", hours, minutes % 60);
    return fmt::format("{} d {} h", hours / 24, hours % 24);
}

std::string rateText(double rate) {
    if (rate == 0) return "0";
    if (rate < 9.95) return fmt::format("{:.1f}", rate);
    return countText(static_cast<std::uint64_t>(std::llround(rate)));
}

}  // namespace kvx::tool
