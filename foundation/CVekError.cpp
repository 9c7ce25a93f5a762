// The catalogue of codes, and the default report: one escaped line in one write, so that the lines
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

#include "platform/Text.h"

namespace {

struct CatalogueEntry {
    int code;
    const char* text;
};

constexpr CatalogueEntry kCatalogue[] = {
    {-220370, "The bus object could not be created"},
    {-220371, "The main thread did not answer in time"},
    {-220379, "Error advisory of the bus"},
    {-220380, "Warning advisory of the bus"},
    {-220382, "Unsupported type of request"},
    {-220383, "Illegal polling frequency"},
    {-220402, "Missing argument"},
    {-220417, "Invalid request"},
    {-220425, "Not called on the main thread"},
    {-220432, "Unexpected state of a worker or its response"},
    {-220439, "The operation could not be completed"},
    {-220440, "Internal failure"},
    {-220462, "The type of I/O event is already chosen"},
    {-220463, "The name of this host is not available"},
    {-220494, "Malformed message or packet"},
    {-220532, "Wrong type of atom"},
    {-220536, "A signal could not be registered"},
    {-220542, "A listener could not be made"},
    {-220544, "No bus session"},
    {-220545, "Nothing could be sent"},
    {-220547, "Not found"},
    {-220549, "The file cannot be used"},
    {-220551, "The text cannot be parsed"},
    {-220552, "Null or invalid argument"},
    {-220553, "Out of memory"},
    {-220566, "The key is already there"},
};

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
    const auto* found = std::find_if(std::begin(kCatalogue), std::end(kCatalogue),
                                     [code](const auto& entry) { return entry.code == code; });
    return found == std::end(kCatalogue) ? "Unknown error" : found->text;
}
