// The default report: one escaped line in one write, so that the lines
// of several threads do not mix.

#include "foundation/CVekError.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <exception>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>

#include "foundation/ErrorCatalogue.h"
#include "platform/Text.h"

namespace {

void appendEscape(std::string& line, std::string_view piece) {
    for (const char c : piece) {
        std::array<char, 5> escape{};
        std::snprintf(escape.data(), escape.size(), "\\x%02X", static_cast<unsigned char>(c));
        line += c == '\n' ? "\\n" : c == '\r' ? "\\r" : c == '\t' ? "\\t" : escape.data();
    }
}

void writeToStandardError(int code, const char* file, int line, const char* text) {
    std::string report = "CVekError " + std::to_string(code) + " ";
    report.append(kvx::escaped(file == nullptr ? "" : file, appendEscape))
        .append(":")
        .append(std::to_string(line))
        .append(" ")
        .append(CVekError::CatalogueText(code));
    if (text != nullptr) report += ": " + kvx::escaped(text, appendEscape);
    report += "\n";
    std::fwrite(report.data(), 1, report.size(), stderr);
}

std::atomic<VekErrorHandler> currentErrorHandler{&writeToStandardError};

}  // namespace

// A failing report must not throw into the code that reports, and a handler that itself reports an
// error must not recurse.
CVekError::CVekError(int code, const char* file, int line, const char* text) noexcept {
    static thread_local bool isHandling = false;
    const bool isNested = std::exchange(isHandling, true);
    try {
        (isNested ? &writeToStandardError : currentErrorHandler.load())(code, file, line, text);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "CVekError %d: %s\n", code, failure.what());
    } catch (...) {
        std::fprintf(stderr, "CVekError %d\n", code);
    }
    isHandling = isNested;
}

VekErrorHandler CVekError::SetHandler(VekErrorHandler handler) noexcept {
    return currentErrorHandler.exchange(handler == nullptr ? &writeToStandardError : handler);
}

const char* CVekError::CatalogueText(int code) noexcept {
    const auto* found = std::find_if(std::begin(kvx::kCatalogue), std::end(kvx::kCatalogue),
                                     [code](const auto& entry) { return entry.code == code; });
    return found == std::end(kvx::kCatalogue) ? "Unknown error" : found->text;
}
