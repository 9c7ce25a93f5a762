// Each element of a subject is one token of the engine's. A token has only bytes that need no care
// anywhere ("A-Z a-z 0-9 _ - ="), and every text has exactly one token, so that reading refuses
// what writing would not have written: two engine subjects never mean the same subject.

#include "rvbridge/EngineSubject.h"

#include <algorithm>

namespace kvx::bridge {

namespace {

constexpr std::string_view kHex = "0123456789ABCDEF";

bool isPlain(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-';
}

void appendToken(std::string& out, std::string_view text) {
    if (text.empty()) out += '=';
    for (const char c : text) {
        if (isPlain(c)) {
            out += c;
            continue;
        }
        const auto byte = static_cast<unsigned char>(c);
        out += '=';
        out += kHex[byte >> 4U];
        out += kHex[byte & 15U];
    }
}

// Appends the text of a token; false when it is not one of a text that is not empty.
bool appendText(std::string& out, std::string_view token) {
    if (token.empty()) return false;
    while (!token.empty()) {
        if (isPlain(token[0])) {
            out += token[0];
            token.remove_prefix(1);
            continue;
        }
        if (token[0] != '=' || token.size() < 3) return false;
        const std::size_t high = kHex.find(token[1]);
        const std::size_t low = kHex.find(token[2]);
        if (high == std::string_view::npos || low == std::string_view::npos) return false;
        const char c = static_cast<char>(high << 4U | low);
        if (c == '\0' || c == '.' || isPlain(c)) return false;
        out += c;
        token.remove_prefix(3);
    }
    return true;
}

bool isWildcard(std::string_view element, bool isLast) {
    return element == kAnyElement || (isLast && element == kAnyTrailingElements);
}

void appendElements(std::string& out, SubjectView subject, bool withWildcards) {
    unsigned left = subject.count();
    for (const std::string_view element : subject) {
        --left;
        if (withWildcards && isWildcard(element, left == 0)) {
            out += element;
        } else {
            appendToken(out, element);
        }
        if (left != 0) out += '.';
    }
}

}  // namespace

EngineSubjects::EngineSubjects(std::string_view service, std::string_view network) {
    prefix_ = "kvx.";
    appendToken(prefix_, service);
    prefix_ += '.';
    appendToken(prefix_, network);
    prefix_ += '.';
}

std::string EngineSubjects::subscription(SubjectView pattern) const {
    std::string out = prefix_ + "s.";
    appendElements(out, pattern, true);
    return out;
}

std::string EngineSubjects::publication(SubjectView subject) const {
    if (!subject.hasWildcards()) return subscription(subject);
    std::string out = prefix_ + "w.";
    appendElements(out, subject, false);
    return out;
}

std::string EngineSubjects::direct(std::string_view host, SubjectView subject) const {
    std::string out = prefix_ + "d.";
    appendToken(out, host);
    out += '.';
    appendElements(out, subject, false);
    return out;
}

std::string EngineSubjects::directTo(std::string_view host) const {
    std::string out = prefix_ + "d.";
    appendToken(out, host);
    return out += ".>";
}

std::string EngineSubjects::wildcardMessages() const {
    return prefix_ + "w.>";
}

std::string EngineSubjects::controlAll() const {
    return prefix_ + "c.all";
}

std::string EngineSubjects::controlTo(std::string_view host) const {
    std::string out = prefix_ + "c.to.";
    appendToken(out, host);
    return out;
}

std::optional<Subject> EngineSubjects::subjectOf(std::string_view engineSubject) const {
    if (engineSubject.substr(0, prefix_.size()) != prefix_) return std::nullopt;
    std::string_view rest = engineSubject.substr(prefix_.size());
    const bool withWildcards = rest.starts_with("s.");
    const bool isDirect = rest.starts_with("d.");
    if (!withWildcards && !isDirect && !rest.starts_with("w.")) return std::nullopt;
    rest.remove_prefix(2);
    if (isDirect) rest.remove_prefix(std::min(rest.find('.'), rest.size() - 1) + 1);
    std::string text;
    for (bool isLast = false; !isLast;) {
        const std::size_t end = std::min(rest.find('.'), rest.size());
        isLast = end == rest.size();
        const std::string_view token = rest.substr(0, end);
        if (!text.empty()) text += '.';
        const std::size_t start = text.size();
        if (withWildcards && isWildcard(token, isLast)) {
            text += token;
        } else if (!appendText(text, token) ||
                   (withWildcards && isWildcard(std::string_view(text).substr(start), isLast))) {
            return std::nullopt;
        }
        rest.remove_prefix(isLast ? end : end + 1);
    }
    auto subject = Subject::fromText(text.c_str());
    // All messages on wildcard subjects, and no others, are published below "w".
    if (subject && !withWildcards && subject->view().hasWildcards() == isDirect) {
        return std::nullopt;
    }
    return subject;
}

}  // namespace kvx::bridge
