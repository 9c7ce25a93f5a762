#include "rva/HttpAnswer.h"

#include <fmt/format.h>

#include <algorithm>

#include "tools/bus/DatumJson.h"

namespace kvx::rva {

namespace {

constexpr std::size_t kMostTaken = 65536;  // bytes of one chunk, unless a piece has more
constexpr std::size_t kPart = 16384;       // bytes of a piece made of small ones

const char* reasonOf(int status) {
    switch (status) {
        case 200:
            return "OK";
        case 204:
            return "No Content";
        case 400:
            return "Bad Request";
        case 401:
            return "Unauthorized";
        case 403:
            return "Forbidden";
        case 404:
            return "Not Found";
        case 405:
            return "Method Not Allowed";
        case 413:
            return "Content Too Large";
        case 415:
            return "Unsupported Media Type";
        case 422:
            return "Unprocessable Content";
        case 429:
            return "Too Many Requests";
        case 431:
            return "Request Header Fields Too Large";
        case 502:
            return "Bad Gateway";
        case 503:
            return "Service Unavailable";
        case 504:
            return "Gateway Timeout";
        case 505:
            return "HTTP Version Not Supported";
        default:
            return "Error";
    }
}

}  // namespace

std::string headOf(const HttpReply& reply, bool isStreamed) {
    std::string head = fmt::format(
        "HTTP/1.1 {} {}\r\nContent-Type: {}\r\nConnection: close\r\n"
        "X-Content-Type-Options: nosniff\r\nReferrer-Policy: no-referrer\r\n"
        "Content-Security-Policy: default-src 'self'; frame-ancestors 'none'; base-uri 'none'; "
        "form-action 'self'\r\n",
        reply.status, reasonOf(reply.status), reply.type);
    bool isCacheable = false;
    for (const auto& [name, value] : reply.headers) {
        isCacheable = isCacheable || name == "Cache-Control";
        head += fmt::format("{}: {}\r\n", name, value);
    }
    if (!isCacheable) head += "Cache-Control: no-store\r\n";
    return head + (isStreamed ? std::string("Transfer-Encoding: chunked\r\n\r\n")
                              : fmt::format("Content-Length: {}\r\n\r\n", reply.body.size()));
}

std::string errorBody(std::string_view code, std::string_view text) {
    return fmt::format("{{\"error\":{{\"code\":{},\"text\":{}}}}}\n",
                       bus::jsonString(std::string(code)), bus::jsonString(std::string(text)));
}

HttpReply errorReply(int status, std::string_view code, std::string_view text) {
    return {status, "application/json; charset=utf-8", errorBody(code, text)};
}

// --- The filling side --------------------------------------------------------------------------

bool HttpAnswer::reply(HttpReply reply) {
    std::unique_lock lock(mutex_);
    if (state_ != State::Waiting) return false;
    head_ = headOf(reply, false);
    pieces_.push_back(std::move(reply.body));
    end(State::Finished, lock, true);
    return true;
}

bool HttpAnswer::start(const HttpReply& head, LastWords lastWords) {
    const std::lock_guard guard(mutex_);
    if (state_ != State::Waiting) return false;
    state_ = State::Streaming;
    isStreamed_ = true;
    head_ = headOf(head, true);
    lastWords_ = std::move(lastWords);
    wakeUp_->notify();
    return true;
}

bool HttpAnswer::offer(std::string_view piece) {
    const std::lock_guard guard(mutex_);
    if (state_ != State::Streaming || waiting_ + piece.size() > kMostWaiting) return false;
    append(piece);
    return true;
}

bool HttpAnswer::write(std::string_view piece) {
    std::unique_lock lock(mutex_);
    hasRoom_.wait(lock, [&] {
        return isEnded() || waiting_ == 0 || waiting_ + piece.size() <= kMostWaiting;
    });
    if (state_ != State::Streaming) return false;
    append(piece);
    return true;
}

// Small pieces share a string, as long as the reader would take both at once.
void HttpAnswer::append(std::string_view piece) {
    const bool isFirst = pieces_.empty() && head_.empty();
    if (!pieces_.empty() && pieces_.back().size() + piece.size() <= kPart) {
        pieces_.back() += piece;
    } else {
        pieces_.emplace_back(piece);
    }
    waiting_ += piece.size();
    if (isFirst) wakeUp_->notify();
}

void HttpAnswer::finish() {
    std::unique_lock lock(mutex_);
    if (state_ == State::Streaming) end(State::Finished, lock, true);
}

void HttpAnswer::breakOff() {
    std::unique_lock lock(mutex_);
    if (state_ == State::Streaming) end(State::Broken, lock, true);
}

void HttpAnswer::onGone(std::function<void()> gone) {
    std::unique_lock lock(mutex_);
    if (!isGone_) {
        if (!isEnded()) gone_ = std::move(gone);
        return;
    }
    lock.unlock();
    gone();
}

void HttpAnswer::expectWithin(std::chrono::milliseconds time) {
    const std::lock_guard guard(mutex_);
    if (state_ == State::Waiting) deadline_ = platform::monotonicMs() + time.count();
    wakeUp_->notify();
}

void HttpAnswer::hold(std::shared_ptr<const void> slot) {
    const std::lock_guard guard(mutex_);
    if (state_ != State::Gone) slot_ = std::move(slot);
}

bool HttpAnswer::isOpen() const {
    const std::lock_guard guard(mutex_);
    return !isEnded();
}

bool HttpAnswer::hasStarted() const {
    const std::lock_guard guard(mutex_);
    return state_ != State::Waiting;
}

// --- The server's side -------------------------------------------------------------------------

HttpAnswer::Taken HttpAnswer::take() {
    const std::lock_guard guard(mutex_);
    Taken taken{std::exchange(head_, {})};
    std::string body;
    while (!pieces_.empty() &&
           (body.empty() || body.size() + pieces_.front().size() <= kMostTaken)) {
        body.empty() ? body.swap(pieces_.front()) : static_cast<void>(body += pieces_.front());
        pieces_.pop_front();
    }
    waiting_ -= std::min(waiting_, body.size());
    if (isStreamed_ && !body.empty()) taken.bytes += fmt::format("{:x}\r\n", body.size());
    taken.bytes += body;
    if (isStreamed_ && !body.empty()) taken.bytes += "\r\n";
    if (pieces_.empty()) {
        taken.isWhole = state_ == State::Finished;
        taken.isBroken = state_ == State::Broken;
        if (taken.isWhole && isStreamed_) taken.bytes += "0\r\n\r\n";
    }
    hasRoom_.notify_all();
    return taken;
}

bool HttpAnswer::hasSome() const {
    const std::lock_guard guard(mutex_);
    return !head_.empty() || !pieces_.empty() || state_ == State::Finished ||
           state_ == State::Broken;
}

void HttpAnswer::goAway() {
    std::unique_lock lock(mutex_);
    pieces_.clear();
    waiting_ = 0;
    slot_.reset();
    if (!isEnded()) end(State::Gone, lock, false);
}

void HttpAnswer::abandon() {
    constexpr const char* kText = "the agent ends";
    if (!reply(errorReply(503, "Ended", kText))) giveUp("Ended", kText);
}

bool HttpAnswer::giveUp(std::string_view code, std::string_view text) {
    std::unique_lock lock(mutex_);
    if (isEnded()) return false;
    if (state_ == State::Waiting) {
        HttpReply reply = errorReply(504, code, text);
        head_ = headOf(reply, false);
        pieces_.push_back(std::move(reply.body));
        end(State::Finished, lock, false);
        return true;
    }
    const bool hasWords = static_cast<bool>(lastWords_);
    if (hasWords) append(lastWords_(code, text));
    end(hasWords ? State::Finished : State::Broken, lock, false);
    return hasWords;
}

std::optional<platform::Milliseconds> HttpAnswer::deadline() const {
    const std::lock_guard guard(mutex_);
    return state_ == State::Waiting ? deadline_ : std::nullopt;
}

// Ends it; who fills it hears of an end that is not its own, without the lock. What either side
// holds for the other is dropped, since it may hold this object.
void HttpAnswer::end(State state, std::unique_lock<std::mutex>& lock, bool isOwn) {
    state_ = state;
    isGone_ = !isOwn;
    const auto gone = std::exchange(gone_, {});
    const auto words = std::exchange(lastWords_, {});
    hasRoom_.notify_all();
    wakeUp_->notify();
    lock.unlock();
    if (!isOwn && gone) gone();
}

}  // namespace kvx::rva
