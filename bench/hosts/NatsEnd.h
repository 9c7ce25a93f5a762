#pragma once

#include <nats/nats.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>

namespace kvx::bench {

inline void require(natsStatus status) {
    if (status != NATS_OK) throw std::runtime_error(natsStatus_GetText(status));
}

/// A connection of NATS's C client.
class NatsEnd {
  public:
    /// `atOnce`: each publish is written at once, else the library's thread writes what waits.
    NatsEnd(const std::string& url, bool atOnce) {
        require(natsOptions_Create(&options_));
        require(natsOptions_SetURL(options_, url.c_str()));
        require(natsOptions_SetSendAsap(options_, atOnce));
        require(natsConnection_Connect(&connection_, options_));
    }
    ~NatsEnd() {
        natsSubscription_Destroy(subscription_);
        natsConnection_Destroy(connection_);
        natsOptions_Destroy(options_);
    }
    NatsEnd(const NatsEnd&) = delete;
    NatsEnd& operator=(const NatsEnd&) = delete;

    [[nodiscard]] natsConnection* connection() const { return connection_; }

    void publish(const std::string& subject, const std::string& payload) {
        require(natsConnection_Publish(connection_, subject.c_str(), payload.data(),
                                       static_cast<int>(payload.size())));
    }
    void flush() { require(natsConnection_Flush(connection_)); }

    /// Answers every message on `subject` with its own payload.
    void answer(const std::string& subject) {
        require(natsConnection_Subscribe(&subscription_, connection_, subject.c_str(), onQuestion,
                                         this));
        flush();
    }
    /// Counts what comes on `pattern` with `bytes` bytes, 0 for any number, without limit.
    void listen(const std::string& pattern, int bytes) {
        bytes_ = bytes;
        require(natsConnection_Subscribe(&subscription_, connection_, pattern.c_str(), onMessage,
                                         this));
        require(natsSubscription_SetPendingLimits(subscription_, -1, -1));
        flush();
    }
    /// How many have come.
    [[nodiscard]] std::size_t heard() {
        const std::lock_guard lock(mutex_);
        return heard_;
    }
    /// The bytes of all that has come, and of its subjects.
    [[nodiscard]] std::size_t sum() const { return sum_; }
    /// Whether anything has come, of whatever length.
    [[nodiscard]] bool isReached() {
        const std::lock_guard lock(mutex_);
        return isReached_;
    }
    /// Waits until `count` have come, at most ten seconds. Returns how many did.
    std::size_t await(std::size_t count) {
        std::unique_lock lock(mutex_);
        awaited_ = count;
        changed_.wait_for(lock, std::chrono::seconds(10),
                          [this, count] { return heard_ >= count; });
        return heard_;
    }

  private:
    static void onQuestion(natsConnection* connection, natsSubscription*, natsMsg* message, void*) {
        natsConnection_Publish(connection, natsMsg_GetReply(message), natsMsg_GetData(message),
                               natsMsg_GetDataLength(message));
        natsMsg_Destroy(message);
    }
    static void onMessage(natsConnection*, natsSubscription*, natsMsg* message, void* closure) {
        NatsEnd& self = *static_cast<NatsEnd*>(closure);
        const int length = natsMsg_GetDataLength(message);
        const bool isCounted = self.bytes_ == 0 || length == self.bytes_;
        self.sum_ += static_cast<std::size_t>(length) + std::strlen(natsMsg_GetSubject(message));
        natsMsg_Destroy(message);
        const std::lock_guard lock(self.mutex_);
        self.isReached_ = true;
        if (isCounted && ++self.heard_ == self.awaited_) self.changed_.notify_all();
    }

    natsOptions* options_ = nullptr;
    natsConnection* connection_ = nullptr;
    natsSubscription* subscription_ = nullptr;
    std::mutex mutex_;
    std::condition_variable changed_;
    int bytes_ = 0;
    std::atomic<std::size_t> sum_ = 0;
    bool isReached_ = false;
    std::size_t heard_ = 0;
    std::size_t awaited_ = 0;
};

}  // namespace kvx::bench
