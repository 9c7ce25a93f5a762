#include "rv/message/SubjectView.h"

#include "rv/message/ShortText.h"
#include "rv/message/WireReader.h"
#include "rv/message/rvSubject.h"

namespace kvx {

namespace {

// One element record: its length byte, 1 to 250 characters, a zero.
bool takeElement(WireReader& reader) {
    std::uint8_t recordLength = 0;
    if (!reader.u8(recordLength)) return false;
    if (recordLength <= kSubjectElementExtra ||
        recordLength > kMaxSubjectElementText + kSubjectElementExtra) {
        return false;
    }
    const std::size_t characters = recordLength - kSubjectElementExtra;
    const std::uint8_t* text = nullptr;
    if (!reader.take(characters + 1, text) || text[characters] != 0) return false;
    const auto* const element = reinterpret_cast<const char*>(text);
    return !hasZero(element, characters) && !hasCharacter(element, characters, '.');
}

}  // namespace

std::optional<SubjectView> SubjectView::parse(const void* encoded, std::size_t available) {
    if (encoded == nullptr || available < kSubjectHeaderBytes) return std::nullopt;
    const SubjectView view = trusted(encoded);
    const std::size_t length = view.length();
    if (length < kSubjectHeaderBytes || length > available || length > kMaxSubjectBytes ||
        view.count() == 0 || view.count() > kMaxSubjectElements) {
        return std::nullopt;
    }
    WireReader reader(view.bytes_ + kSubjectHeaderBytes, length - kSubjectHeaderBytes);
    for (unsigned left = view.count(); left > 0; --left) {
        if (!takeElement(reader)) return std::nullopt;
    }
    return reader.left() == 0 ? std::optional(view) : std::nullopt;
}

std::string_view SubjectView::operator[](unsigned i) const {
    Iterator at = begin();
    for (; i > 0; --i) ++at;
    return *at;
}

bool SubjectView::hasWildcards() const {
    std::string_view last;
    for (const std::string_view element : *this) {
        if (element == kAnyElement) return true;
        last = element;
    }
    return last == kAnyTrailingElements;
}

std::string SubjectView::text() const {
    std::string text;
    text.reserve(length());
    for (const std::string_view element : *this) {
        if (!text.empty()) text += '.';
        text += element;
    }
    return text;
}

std::optional<Subject> Subject::fromText(const char* text, unsigned capacity) {
    std::string bytes(kMaxSubjectBytes, '\0');
    if (capacity > kMaxSubjectBytes) capacity = kMaxSubjectBytes;
    const int length = rvSubject_FromText(bytes.data(), capacity, text);
    if (length < 0) return std::nullopt;
    bytes.resize(static_cast<std::size_t>(length));
    bytes.shrink_to_fit();
    return Subject(std::move(bytes));
}

Subject::Subject(SubjectView view) : bytes_(static_cast<const char*>(view.data()), view.length()) {}

}  // namespace kvx
