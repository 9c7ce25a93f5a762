#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "examples/modeld/store/Store.h"
#include "kvx/kvx.h"

namespace modeld {

/// Answers the questions of a service out of a database, and logs them and the service's role.
///
/// Every question gets an answer. Rows are records with the columns as fields, without empty
/// values; no rows is an empty answer with the status "Query has zero matches". A refused question
/// is answered with the nearest status and one record with "error", a text, and "position", the
/// 1-based position in the query text if there is one. An answer with rows names the changes that
/// are in it.
///
/// Built on the main thread of `service` before it runs, and outlives its run.
class ModelService {
  public:
    /// The rows of `source`, whose files are not used, can be followed. `membership` is for the
    /// log.
    ModelService(kvx::Service& service, std::string database, const Source& source,
                 std::string membership);
    ModelService(const ModelService&) = delete;
    ModelService& operator=(const ModelService&) = delete;

    /// Opens the database and has questions answered from it. False, with `reason` set, when it
    /// cannot be opened.
    [[nodiscard]] bool start(std::string& reason);

    /// Totals since the start, without probes, and the questions that wait for a thread now.
    struct Statistics {
        std::uint64_t answered = 0;
        std::uint64_t refused = 0;
        std::uint64_t rows = 0;
        std::size_t waiting = 0;
    };

    /// Any thread.
    Statistics statistics() const;

  private:
    void roleChanged(bool active);
    void tellHeld();
    void answer(const kvx::Question& question, kvx::Reply& reply);
    std::unique_ptr<Store> borrowStore(Refusal& refusal);
    void returnStore(std::unique_ptr<Store> store);

    kvx::Service& service_;
    kvx::Changes& changes_;
    const std::string database_;
    const std::string table_;
    const std::string membership_;
    const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
    std::atomic<std::uint64_t> answered_{0};
    std::atomic<std::uint64_t> refused_{0};
    std::atomic<std::uint64_t> rows_{0};
    std::atomic<std::uint64_t> toldHeld_{0};

    // Guarded by storesMutex_: connections not in use.
    std::mutex storesMutex_;
    std::vector<std::unique_ptr<Store>> stores_;
};

}  // namespace modeld
