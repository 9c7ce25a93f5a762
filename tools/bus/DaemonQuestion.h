#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "mom/mom.h"
#include "tools/bus/DatumJson.h"
#include "tools/bus/Ticker.h"

namespace kvx::bus {

// The subjects on which the daemon answers.
inline constexpr const char* kStatusSubject = "_RVD.STATUS";
inline constexpr const char* kSessionsSubject = "_RVD.SESSIONS";
inline constexpr const char* kSubjectsSubject = "_RVD.SUBJECTS";
inline constexpr const char* kTraceSubject = "_RVD.TRACE";
inline constexpr const char* kLatencySubject = "_RVD.LATENCY";

/// Asks the daemon about itself, and gathers the parts of its answer. Main thread, once the net is
/// up.
class DaemonQuestion : private RvDataCallback {
  public:
    /// The whole answer as an object: what it has once is a value, rows ("session", "subject",
    /// "match", "shape", "bucket") and "address" are arrays, the fields of a shape texts such as
    /// "price:f64". Or why there is none; an answer of more than 64 MiB is none. May ask again.
    using Done = std::function<void(const Json& answer, const std::string& error)>;

    /// `net` must outlive this object.
    DaemonQuestion(CVekRvNet& net, const char* subject, Done done);

    /// Sends the question. An earlier one that has no answer yet is forgotten.
    void ask(const RvMsg& options, double timeoutSeconds);

    /// From `ask` until the answer has come or its time is over.
    [[nodiscard]] bool isWaiting() const { return isWaiting_; }

  private:
    void onData(const char* subject, RvSender* replyTo, const RvDatum& data,
                RvListener* listener) override;
    void finish(const std::string& error);

    CVekRvNet& net_;
    const std::string subject_;
    const Done done_;
    std::unique_ptr<RvSender> sender_;
    std::unique_ptr<RvListener> inbox_;
    std::optional<Ticker> deadline_;
    Json answer_;
    std::uint64_t parts_ = 0;
    std::size_t bytes_ = 0;  // of the parts
    bool isWaiting_ = false;
};

}  // namespace kvx::bus
