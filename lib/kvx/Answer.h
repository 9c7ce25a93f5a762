#pragma once

#include <cstdint>
#include <memory>
#include <unordered_set>

#include "kvx/Client.h"
#include "mom/mom.h"

namespace kvx::detail {

/// The packets of one answer, until they are 1 to N, each once. One thread at a time.
class Answer {
  public:
    enum class State { Waiting, Complete, Mixed };

    /// Takes what came; what is no packet changes nothing.
    State take(const RvDatum& data);

    [[nodiscard]] bool isEmpty() const { return numbers_.empty(); }
    [[nodiscard]] std::size_t packets() const { return numbers_.size(); }

    /// Decodes the records and the status of a complete answer.
    QueryResult result(const std::string& tried);
    /// The same of one that ended with `code`.
    QueryResult failure(Errc code, std::string text, const std::string& tried);

  private:
    CVekTransport transport_{nullptr};
    std::int64_t count_ = 0;  // of the packets, as the first one says
    std::unordered_set<std::int64_t> numbers_;
};

/// The records of one packet, for notices.
Rows recordsOf(const RvDatum& data);

}  // namespace kvx::detail
