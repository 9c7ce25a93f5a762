#pragma once

#include <string>
#include <string_view>

#include "examples/modeld/store/Store.h"
#include "mom/mom.h"

namespace modeld {

/// The record that tells of one changed row, encoded: the fields "@change" ("inserted", "changed"
/// or "deleted") and "@table", which no column can be named, then the columns as in an answer. A
/// changed row has its new values, a deleted one its last.
std::string changeNotice(const std::string& table, Change change, const Row& row);

/// Publishes notices through the send queue of an engine, up to a hundred in a packet. Every packet
/// is a batch of its own, so that receivers need not know who sent it. Any one thread.
class ChangePublisher {
  public:
    /// `engine` must outlive the object. An empty `subject` publishes nothing.
    ChangePublisher(CVekEngine& engine, std::string subject);

    void add(std::string_view notice);

    /// Queues what has been added since the last full packet.
    void flush();

    std::uint64_t published() const { return published_; }

  private:
    CVekEngine& engine_;
    const std::string subject_;
    CVekTransport transport_;
    unsigned waiting_ = 0;
    std::uint64_t published_ = 0;
};

}  // namespace modeld
