#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "mom/mom.h"
#include "rva/EventSink.h"
#include "tools/bus/Ticker.h"

namespace kvx::rva {

/// HTTP clients that listen on subjects of the bus: one subscription a subject, whoever listens on
/// it. Bus thread only, except where stated.
class Listens {
  public:
    /// `net` must outlive this object, and its loop have ended before this object is destroyed.
    explicit Listens(CVekRvNet& net);
    ~Listens();

    /// Streams the messages on `subjects` until the client goes. `slot` bounds how many wait for
    /// the bus's thread. Any thread; never waits.
    void listen(std::vector<std::string> subjects, const HttpAnswerPtr& answer,
                std::shared_ptr<const void> slot);

    /// Sends an event to all who listen.
    void tell(std::string_view event);

  private:
    class Subject;
    struct Listener;
    using ListenerPtr = std::shared_ptr<Listener>;

    void add(const ListenerPtr& listener);
    bool subscribe(const ListenerPtr& listener, const std::string& subject);
    void remove(const ListenerPtr& listener);
    void tick();

    CVekRvNet& net_;
    std::map<std::string, std::unique_ptr<Subject>> subjects_;
    std::vector<ListenerPtr> listeners_;
    bus::Ticker ticker_;
};

}  // namespace kvx::rva
