// Subjects from a peer and from users: parsing, text forms, editing, and a tree that is changed and
// matched with them, compared with a plain list.

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "rv/message/SubjectTree.h"
#include "rv/message/rvSubject.h"

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

// Reads unchecked bytes, with a correct length word as the readers expect.
void readEncoded(const std::uint8_t* bytes, std::size_t length) {
    const auto view = kvx::SubjectView::parse(bytes, length);
    if (length < 3) return;
    std::vector<std::uint8_t> copy(bytes, bytes + std::min<std::size_t>(length, 0xFFFF));
    copy[0] = static_cast<std::uint8_t>(copy.size() >> 8U);
    copy[1] = static_cast<std::uint8_t>(copy.size());
    std::vector<char> text(copy.size());
    rvSubject_ToText(text.data(), static_cast<unsigned>(text.size()), copy.data());
    for (const unsigned i : {0U, 1U, 2U, 255U}) rvSubject_Element(copy.data(), i);
    rvSubject_RemoveLast(copy.data());
    if (!view) return;
    std::uint8_t again[kvx::kMaxSubjectBytes];
    const int encoded = rvSubject_FromText(again, sizeof again, view->text().c_str());
    require(encoded == static_cast<int>(view->length()));
    require(std::memcmp(again, view->data(), view->length()) == 0);
}

std::vector<std::string> linesOf(const std::uint8_t* bytes, std::size_t length) {
    std::vector<std::string> lines(1);
    for (std::size_t i = 0; i < length && lines.size() <= 64; ++i) {
        if (bytes[i] == '\n') {
            lines.emplace_back();
        } else if (bytes[i] != 0) {
            lines.back() += static_cast<char>(bytes[i]);
        }
    }
    return lines;
}

struct Subscription {
    kvx::Subject subject;
    bool isAdded = false;
};

bool matches(kvx::SubjectView pattern, kvx::SubjectView subject) {
    auto at = subject.begin();
    for (unsigned i = 0; i < pattern.count(); ++i, ++at) {
        if (at == subject.end()) return false;
        const std::string_view element = pattern[i];
        if (element == kvx::kAnyTrailingElements && i + 1 == pattern.count()) return true;
        if (element != kvx::kAnyElement && element != *at) return false;
    }
    return at == subject.end();
}

// The known subscription on `subject`, or a new one. `all` has room for it.
Subscription& entryFor(std::vector<Subscription>& all, const kvx::Subject& subject) {
    const std::string text = subject.view().text();
    for (Subscription& known : all) {
        if (known.subject.view().text() == text) return known;
    }
    all.push_back(Subscription{subject});
    return all.back();
}

// Every line toggles a subscription and is then matched as a message's subject.
void driveTree(const std::vector<std::string>& lines) {
    kvx::SubjectTree<Subscription> tree;
    std::vector<Subscription> all;
    all.reserve(lines.size());
    for (const std::string& line : lines) {
        const auto subject = kvx::Subject::fromText(line.c_str());
        if (!subject) continue;
        Subscription& toggled = entryFor(all, *subject);
        if (toggled.isAdded) {
            require(tree.remove(*subject, &toggled));
        } else {
            tree.add(*subject, &toggled);
        }
        toggled.isAdded = !toggled.isAdded;
        if (subject->view().hasWildcards()) {
            tree.match(*subject, kvx::SubjectMatch::kCovered,
                       [](Subscription& s) { require(s.isAdded); });
            continue;
        }
        std::size_t expected = 0;
        for (const Subscription& s : all) expected += s.isAdded && matches(s.subject, *subject);
        require(tree.match(*subject, [](Subscription& s) { require(s.isAdded); }) == expected);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length) {
    readEncoded(bytes, length);
    driveTree(linesOf(bytes, length));
    return 0;
}
