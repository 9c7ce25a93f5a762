// A lookup is a linear search: the tables are short, and texts are needed on failures only.

#include "rv/error/rvErrors.h"

#include <span>

#include "rv/error/rvCodeTexts.h"

namespace {

using kvx::CodeText;

// The text of `code`, or null.
const char* textIn(std::span<const CodeText> table, int code) {
    for (const CodeText& row : table) {
        if (row.code == code) return row.text;
    }
    return nullptr;
}

const char* firstOf(const char* first, const char* second, const char* otherwise) {
    if (first != nullptr) return first;
    return second != nullptr ? second : otherwise;
}

}  // namespace

const char* rv_VersionText() {
    constexpr auto digit = [](int number) { return static_cast<char>('0' + number); };
    static constexpr char text[] = {digit(kvx::kClientVersion[0]), '.',
                                    digit(kvx::kClientVersion[1]), '.',
                                    digit(kvx::kClientVersion[2]), 0};
    return text;
}

const char* rv_ErrorText(int code) {
    return firstOf(textIn(kvx::kSharedTexts, code), textIn(kvx::kSessionTexts, code), "");
}

const char* rvmsg_ErrorText(int code) {
    return firstOf(textIn(kvx::kMessageTexts, code), textIn(kvx::kSharedTexts, code), "");
}

const char* rvmsg_CoreErrorText(int code) {
    return firstOf(textIn(kvx::kSharedTexts, code), textIn(kvx::kMessageTexts, code), "");
}

const char* rvevm_ErrorText(int code) {
    return firstOf(textIn(kvx::kEventTexts, code), nullptr, "Unknown error.");
}

const char* ipq_ErrorText(int code) {
    return firstOf(textIn(kvx::kQueueTexts, code), nullptr, "An unknown error has occurred.");
}

const char* rv_SocketErrorText(int code) {
    return firstOf(textIn(kvx::kSocketTexts, code), nullptr, "***Unknown***");
}
