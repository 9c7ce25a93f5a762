#include "rv/session/ConnectReport.h"

#include <new>
#include <utility>

#include "rv/session/rv_Session.h"

namespace kvx::session {

ConnectReport& ConnectReport::ofThisThread() {
    static thread_local ConnectReport report;
    return report;
}

void ConnectReport::begin() {
    *this = {};
}

namespace {

template <class Step>
void ifMemoryAllows(Step step) noexcept {
    try {
        step();
    } catch (const std::bad_alloc&) {  // what it would have said is missing
        return;
    }
}

}  // namespace

void ConnectReport::attemptFailed(const std::string& why) noexcept {
    ifMemoryAllows([&] {
        if (why != why_) closeAttempts();
        why_ = why;
    });
    ++next_;
}

void ConnectReport::add(std::string_view what) noexcept {
    ifMemoryAllows([&] {
        closeAttempts();
        append(what);
    });
}

const std::string& ConnectReport::text() noexcept {
    ifMemoryAllows([&] { closeAttempts(); });
    return text_;
}

void ConnectReport::append(std::string_view what) {
    if (!text_.empty()) text_ += "; ";
    text_ += what;
}

void ConnectReport::closeAttempts() {
    if (why_.empty()) return;
    const int last = next_ - 1;
    std::string which = first_ == last
                            ? "attempt " + std::to_string(last)
                            : "attempts " + std::to_string(first_) + " to " + std::to_string(last);
    first_ = next_;
    which += ": " + std::exchange(why_, {});
    append(which);
}

}  // namespace kvx::session

const char* rv_ConnectReport() {
    return kvx::session::ConnectReport::ofThisThread().text().c_str();
}
