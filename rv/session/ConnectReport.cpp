#include "rv/session/ConnectReport.h"

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

void ConnectReport::attemptFailed(const std::string& why) {
    if (why != why_) closeAttempts();
    why_ = why;
    ++next_;
}

void ConnectReport::add(std::string_view what) {
    closeAttempts();
    if (!text_.empty()) text_ += "; ";
    text_ += what;
}

const std::string& ConnectReport::text() {
    closeAttempts();
    return text_;
}

void ConnectReport::closeAttempts() {
    if (why_.empty()) return;
    const int last = next_ - 1;
    std::string which = first_ == last
                            ? "attempt " + std::to_string(last)
                            : "attempts " + std::to_string(first_) + " to " + std::to_string(last);
    first_ = next_;
    which += ": " + std::exchange(why_, {});
    add(which);
}

}  // namespace kvx::session

const char* rv_ConnectReport() {
    return kvx::session::ConnectReport::ofThisThread().text().c_str();
}
