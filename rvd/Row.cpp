#include "rvd/Row.h"

#include <array>
#include <new>
#include <string>

namespace kvx::rvd {
namespace {

constexpr std::size_t kEmptyMessage = 8;  // bytes

void expect(const RvStatus& status) {
    if (status.code() != 0) throw std::bad_alloc();
}

}  // namespace

Row::Row(std::size_t capacity) : message_(static_cast<unsigned long>(capacity)) {
    if (message_.size() == 0) throw std::bad_alloc();
}

void Row::put(const char* name, std::uint64_t number) {
    expect(message_.append(name, RVMSG_UINT, sizeof number, &number));
}

void Row::put(const char* name, double number) {
    expect(message_.append(name, number));
}

void Row::put(const char* name, bool value) {
    const std::uint8_t byte = value ? 1 : 0;
    expect(message_.append(name, RVMSG_BOOLEAN, sizeof byte, &byte));
}

void Row::put(const char* name, std::string_view text) {
    expect(message_.append(name, RVMSG_STRING, 0, std::string(text).c_str()));
}

void Row::put(const char* name, SubjectView subject) {
    expect(message_.append(name, RVMSG_SUBJECT, subject.length(), subject.data()));
}

void Row::put(const char* name, const Row& row) {
    expect(message_.append(name, RVMSG_MSG, 0, row.data()));
}

void Row::putEmpty(const char* name, rvmsg_Type type, rvmsg_Size size) {
    constexpr std::array<std::uint8_t, 12> kZeros{};
    constexpr std::array<std::uint8_t, 6> kSubject = {0, 6, 1, 3, '*', 0};
    switch (type) {
        case RVMSG_MSG:
            return put(name, Row(kEmptyMessage));
        case RVMSG_SUBJECT:
            return put(name, SubjectView::trusted(kSubject.data()));
        case RVMSG_STRING:
            return put(name, "");
        case RVMSG_BOOLEAN:
            return put(name, false);
        case RVMSG_DATETIME:
            return expect(message_.append(name, type, kZeros.size(), kZeros.data()));
        case RVMSG_INT:
        case RVMSG_UINT:
        case RVMSG_REAL:
        case RVMSG_IPDATA:
            return expect(message_.append(name, type, size, kZeros.data()));
        default:
            return expect(message_.append(name, RVMSG_OPAQUE, 1, kZeros.data()));
    }
}

}  // namespace kvx::rvd
