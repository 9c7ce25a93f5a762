#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <vector>

#include "mom/mom.h"
#include "rva/HttpAnswer.h"
#include "rva/Quota.h"
#include "tools/bus/MessageJson.h"

namespace kvx::rva {

/// Messages and requests of HTTP clients, put on the bus by its thread. The calls are for any
/// thread, and never wait.
class BusCalls {
  public:
    /// `net` must outlive this object, and its loop have ended before this object is destroyed.
    explicit BusCalls(CVekRvNet& net) : net_(net) {}
    ~BusCalls();

    /// Sends all, and answers how many. When one cannot be sent, the later ones are not.
    void send(std::vector<bus::Outgoing> messages, const HttpAnswerPtr& answer);

    /// Sends, and answers with the first reply.
    void request(bus::Outgoing message, std::chrono::milliseconds timeout,
                 const HttpAnswerPtr& answer);

  private:
    class Request;
    bool post(const HttpAnswerPtr& answer, std::chrono::milliseconds within,
              std::function<void()> work);

    CVekRvNet& net_;
    const Quota quota_{64};
    std::set<std::shared_ptr<Request>> requests_;  // bus thread only
};

}  // namespace kvx::rva
