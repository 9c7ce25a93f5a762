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

// What the second byte of a sequence may be behind its first one: no form longer than needed, no
// surrogate, nothing above U+10FFFF. U+0080 to U+009F are left out: they are control characters.
bool isSecondByte(unsigned char first, unsigned char second) {
    switch (first) {
        case 0xC2:
        case 0xE0:
            return second >= 0xA0 && second <= 0xBF;
        case 0xED:
            return second >= 0x80 && second <= 0x9F;
        case 0xF0:
            return second >= 0x90 && second <= 0xBF;
        case 0xF4:
            return second >= 0x80 && second <= 0x8F;
        default:
            return second >= 0x80 && second <= 0xBF;
    }
}

// The bytes of the character that `text` begins with; 0 for what a terminal should not be given: a
// control character, or a byte that belongs to no character.
std::size_t shownBytes(std::string_view text) {
    const auto at = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = at(0);
    if (first < 0x80) return isControl(first) ? 0 : 1;
    if (first < 0xC2 || first > 0xF4) return 0;
    const std::size_t length = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    if (text.size() < length || !isSecondByte(first, at(1))) return 0;
    for (std::size_t i = 2; i < length; ++i) {
        if (at(i) < 0x80 || at(i) > 0xBF) return 0;
    }
    return length;
}

void appendEscaped(std::string& line, unsigned char byte) {
    std::array<char, 5> escape{};
    std::snprintf(escape.data(), escape.size(), "\\x%02X", byte);
    line += byte == '\n' ? "\\n" : byte == '\r' ? "\\r" : byte == '\t' ? "\\t" : escape.data();
}

// Appends `text` with everything escaped that is no character to show, so that a line stays a line
// and a terminal does nothing but show it.
void appendOneLine(std::string& line, std::string_view text) {
    while (!text.empty()) {
        const std::size_t shown = shownBytes(text);
        if (shown == 0) {
            appendEscaped(line, static_cast<unsigned char>(text.front()));
        } else {
            line += text.substr(0, shown);
        }
        text.remove_prefix(std::max<std::size_t>(shown, 1));
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

// A report that cannot be made must not end what is being reported on, and a handler that reports
// an error itself must not be called for that without end.
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
