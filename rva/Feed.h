#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "mom/mom.h"
#include "rva/EventSink.h"
#include "rva/Observations.h"
#include "tools/bus/MessageJson.h"
#include "tools/bus/Ticker.h"

namespace kvx::rva {

/// The events of `GET /api/events`: what changes on the bus, made once for all pages. Those of the
/// last time are kept for clients that come back. Bus thread only, except where stated.
class Feed {
  public:
    /// Both must outlive this object, and the loop of `net` have ended before it is destroyed.
    Feed(CVekRvNet& net, Observations& seen);
    ~Feed();

    /// Streams the events until the client goes: those after `lastEventId` where they are kept,
    /// else the state and then what changes. `slot` bounds how many wait for the bus's thread. Any
    /// thread; never waits.
    void join(std::string lastEventId, const HttpAnswerPtr& answer,
              std::shared_ptr<const void> slot);

    void tellBus();
    /// Of the daemon; sent once a second at most.
    void tellTraffic() { hasTraffic_ = true; }
    void tellHistory(const History::Entry& entry);

  private:
    using Text = std::shared_ptr<const std::string>;
    struct Page;
    using PagePtr = std::shared_ptr<Page>;
    struct Event {
        std::uint64_t number;
        std::string name;
        Text text;
    };
    using Key = std::tuple<std::string, std::string, std::string, std::int64_t>;
    struct State {
        std::uint64_t beats;
        std::uint64_t overdue;
        bool isSilent;
        bool isPrimary;
        Milliseconds roleSince;
        bool operator==(const State&) const = default;
    };

    void add(const PagePtr& page);
    void tick();
    void tellServices();
    void push(const std::string& name, const std::string& data);
    void startAnew(Page& page);
    bool resume(Page& page);
    void flush(Page& page);
    [[nodiscard]] std::string idOf(std::uint64_t number) const;
    [[nodiscard]] std::vector<std::string> serviceEvents(const std::vector<std::string>& rows,
                                                         const std::vector<Key>& gone,
                                                         bool isWhole) const;

    CVekRvNet& net_;
    Observations& seen_;
    std::vector<PagePtr> pages_;
    std::deque<Event> kept_;
    std::size_t keptBytes_ = 0;
    std::uint64_t epoch_;          // changes whenever events have been missed
    std::uint64_t last_ = 0;       // number of the last event
    std::uint64_t forgotten_ = 0;  // of the last one that is not kept, nor stood for by a later one
    std::map<Key, State> services_;
    bool isLive_ = false;
    bool hasTraffic_ = false;
    int emptyTicks_ = 0;
    bus::Ticker ticker_;
};

}  // namespace kvx::rva
