#pragma once

#include <atomic>
#include <chrono>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "kvx/Client.h"
#include "rva/HttpAnswer.h"
#include "rva/Quota.h"

namespace kvx::rva {

enum class RowFormat { NdJson, WholeJson, Csv };

struct Query {
    std::string service;
    std::string text;
    RowFormat format = RowFormat::NdJson;
    std::chrono::milliseconds timeout{8000};
};

/// Puts HTTP clients' questions to services, each on a thread of its own, since waiting for rows
/// and for room at the client both may take long. Any thread.
class Queries {
  public:
    /// `client` must outlive this object.
    explicit Queries(Client& client) : client_(client) {}
    /// `end`.
    ~Queries();
    Queries(const Queries&) = delete;
    Queries& operator=(const Queries&) = delete;

    /// Streams the answer. Never waits; 429 when 16 are in progress.
    void ask(Query query, const HttpAnswerPtr& answer);

    /// Cancels all, waits for their threads, and answers later ones with 503.
    void end();

  private:
    struct Running;
    void run(Running& running);
    void removeDone();

    Client& client_;
    const Quota quota_{16};
    std::mutex mutex_;
    // Guarded by mutex_.
    std::list<std::shared_ptr<Running>> running_;
    bool isEnding_ = false;
};

}  // namespace kvx::rva
