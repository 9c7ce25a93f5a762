#include "foundation/CVekError.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <exception>
#include <iterator>
#include <string>
#include <string_view>

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

bool isControl(unsigned char byte) {
    return byte < 0x20 || byte == 0x7F;
}

void appendEscaped(std::string& line, unsigned char byte) {
    std::array<char, 5> escape{};
    std::snprintf(escape.data(), escape.size(), "\\x%02X", byte);
    line += byte == '\n' ? "\\n" : byte == '\r' ? "\\r" : byte == '\t' ? "\\t" : escape.data();
}

// Appends `text` with its control characters escaped, so that a line stays a line and a terminal
// does nothing but show it. The two bytes of U+0080 to U+009F are control characters too.
void appendOneLine(std::string& line, std::string_view text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
        if (byte == 0xC2 && next >= 0x80 && next < 0xA0) {
            appendEscaped(line, byte);
            appendEscaped(line, next);
            ++i;
        } else if (isControl(byte)) {
            appendEscaped(line, byte);
        } else {
            line += text[i];
        }
    }
}

// One write for the whole line, so that the lines of several threads do not mix.
void writeToStandardError(int code, const char* file, int line, const char* text) {
    std::string report = "CVekError " + std::to_string(code) + " ";
    appendOneLine(report, file == nullptr ? "" : file);
    report.append(":")
        .append(std::to_string(line))
        .append(" ")
        .append(CVekError::CatalogueText(code));
    if (text != nullptr) {
        report += ": ";
        appendOneLine(report, text);
    }
    report += "\n";
    std::fwrite(report.data(), 1, report.size(), stderr);
}

std::atomic<VekErrorHandler> currentErrorHandler{&writeToStandardError};

}  // namespace

CVekError::CVekError(int code, const char* file, int line, const char* text) noexcept {
    try {
        currentErrorHandler.load()(code, file, line, text);
    } catch (const std::exception& failure) {
        // A report that cannot be made must not end what is being reported on.
        std::fprintf(stderr, "CVekError %d: %s\n", code, failure.what());
    }
}

VekErrorHandler CVekError::SetHandler(VekErrorHandler handler) noexcept {
    return currentErrorHandler.exchange(handler == nullptr ? &writeToStandardError : handler);
}

const char* CVekError::CatalogueText(int code) noexcept {
    const auto* found = std::find_if(std::begin(kCatalogue), std::end(kCatalogue),
                                     [code](const auto& entry) { return entry.code == code; });
    return found == std::end(kCatalogue) ? "Unknown error" : found->text;
}
