#include "rva/Feed.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <utility>

#include "platform/Clock.h"

namespace kvx::rva {

namespace {

constexpr int kEmptyTicks = 60;  // for which events are kept although there is no page
constexpr std::size_t kMostKept = 1U << 20U;
constexpr std::size_t kMostPending = 1000;  // events of one page
constexpr std::size_t kRowsPerEvent = 200;  // has room for a client, whatever the names

Json keyJson(const auto& key) {
    const auto& [service, domain, host, pid] = key;
    return {{"service", service}, {"domain", domain}, {"host", host}, {"pid", pid}};
}

std::string joined(const std::vector<std::string>& rows, std::size_t begin, std::size_t end) {
    std::string text;
    for (std::size_t i = begin; i < end; ++i) text.append(i == begin ? "" : ",").append(rows[i]);
    return text;
}

}  // namespace

struct Feed::Page {
    const std::string lastEventId;
    EventSink sink;
    std::deque<Text> pending{};
    bool isStale = false;  // so many were pending that it starts anew
};

Feed::Feed(CVekRvNet& net, Observations& seen)
    : net_(net),
      seen_(seen),
      epoch_(static_cast<std::uint64_t>(platform::wallMilliseconds())),
      ticker_(net, kEventTickMs, bus::Ticker::Repeat::Forever, [this] { tick(); }) {}

Feed::~Feed() = default;

void Feed::join(std::string lastEventId, const HttpAnswerPtr& answer,
                std::shared_ptr<const void> slot) {
    answer->expectWithin(kHandOver);
    auto page = std::make_shared<Page>(Page{std::move(lastEventId), EventSink(answer)});
    answer->onGone([this, weak = std::weak_ptr(page)] {
        net_.RRNPost([this, weak] {
            if (const auto gone = weak.lock()) std::erase(pages_, gone);
        });
    });
    const int status = net_.RRNPost([this, page, answer, slot = std::move(slot)] {
        if (answer->isOpen()) add(page);
    });
    if (status != kOk) answer->reply(errorReply(503, "Ended", "the agent ends"));
}

void Feed::add(const PagePtr& page) {
    if (!page->sink.start()) return;
    // Changes are noted from now on: they are those since this state.
    if (!std::exchange(isLive_, true)) tellServices();
    if (!resume(*page)) startAnew(*page);
    pages_.push_back(page);
    flush(*page);
}

void Feed::tick() {
    if (!isLive_) return;
    emptyTicks_ = pages_.empty() ? emptyTicks_ + 1 : 0;
    if (emptyTicks_ > kEmptyTicks) {
        isLive_ = false;
        kept_.clear();
        keptBytes_ = 0;
        services_.clear();
        ++epoch_;
        return;
    }
    tellServices();
    if (std::exchange(hasTraffic_, false)) push("traffic", seen_.busJson());
    for (const auto& page : pages_) {
        page->sink.tick();
        flush(*page);
    }
}

void Feed::tellBus() {
    if (isLive_) push("bus", seen_.connectionJson());
}

void Feed::tellHistory(const History::Entry& entry) {
    if (isLive_) push("history", bus::lineOf(History::entryJson(entry)));
}

// What has changed since the last call.
void Feed::tellServices() {
    const Milliseconds now = platform::monotonicMs();
    std::map<Key, State> present;
    std::vector<std::string> changed;
    for (const auto& service : seen_.services(now)) {
        const auto& beat = service.beat;
        const Key key{beat.service, beat.domain, beat.host, beat.pid};
        const State state{service.beats, service.overdue(now), service.isSilent(now),
                          service.isPrimary(), service.member ? service.member->roleSince : -1};
        const auto before = services_.find(key);
        const bool isSame = before != services_.end() && before->second == state;
        if (!isSame) changed.push_back(beats::serviceAsJson(service, now));
        present.emplace(key, state);
    }
    std::vector<Key> gone;
    for (const auto& [key, state] : services_) {
        if (!present.contains(key)) gone.push_back(key);
    }
    services_ = std::move(present);
    if (changed.empty() && gone.empty()) return;
    for (const auto& data : serviceEvents(changed, gone, false)) {
        push("services", data);
    }
}

std::vector<std::string> Feed::serviceEvents(const std::vector<std::string>& rows,
                                             const std::vector<Key>& gone, bool isWhole) const {
    const std::size_t count = std::max(rows.size(), gone.size());
    std::vector<std::string> events;
    for (std::size_t i = 0; i == 0 || i < count; i += kRowsPerEvent) {
        const std::size_t end = i + kRowsPerEvent;
        Json keys = Json::array();
        for (std::size_t k = i; k < std::min(gone.size(), end); ++k)
            keys.push_back(keyJson(gone[k]));
        events.push_back(fmt::format(R"({{"whole":{},"services":[{}],"gone":{}}})",
                                     isWhole && i == 0, joined(rows, i, std::min(rows.size(), end)),
                                     bus::lineOf(keys)));
    }
    return events;
}

std::string Feed::idOf(std::uint64_t number) const {
    return fmt::format("{}-{}", epoch_, number);
}

void Feed::push(const std::string& name, const std::string& data) {
    const auto text = std::make_shared<const std::string>(eventText(name, data, idOf(++last_)));
    // Of the traffic only the last counts.
    if (name == "traffic") {
        std::erase_if(kept_, [&](const Event& event) {
            if (event.name != name) return false;
            keptBytes_ -= event.text->size();
            return true;
        });
    }
    kept_.push_back({last_, name, text});
    keptBytes_ += text->size();
    while (keptBytes_ > kMostKept) {
        keptBytes_ -= kept_.front().text->size();
        forgotten_ = kept_.front().number;
        kept_.pop_front();
    }
    for (const auto& page : pages_) {
        page->pending.push_back(text);
        flush(*page);
    }
}

// All of the state carries the id of the last event.
void Feed::startAnew(Page& page) {
    const Milliseconds now = platform::monotonicMs();
    page.pending.clear();
    const auto queue = [&](std::string_view name, std::string_view data) {
        page.pending.push_back(
            std::make_shared<const std::string>(eventText(name, data, idOf(last_))));
    };
    std::vector<std::string> rows;
    for (const auto& service : seen_.services(now)) {
        rows.push_back(beats::serviceAsJson(service, now));
    }
    queue("bus", seen_.connectionJson());
    for (const auto& data : serviceEvents(rows, {}, true)) queue("services", data);
    queue("traffic", seen_.busJson());
    page.isStale = false;
}

// False when what the page missed is not kept.
bool Feed::resume(Page& page) {
    const std::string& id = page.lastEventId;
    const std::string prefix = fmt::format("{}-", epoch_);
    std::uint64_t number = 0;
    if (!id.starts_with(prefix)) return false;
    const auto [end, error] =
        std::from_chars(id.data() + prefix.size(), id.data() + id.size(), number);
    if (error != std::errc() || end != id.data() + id.size() || number > last_) return false;
    if (number < forgotten_) return false;
    for (const Event& event : kept_) {
        if (event.number > number) page.pending.push_back(event.text);
    }
    return true;
}

void Feed::flush(Page& page) {
    if (page.pending.size() > kMostPending) {
        page.pending.clear();
        page.isStale = true;
    }
    if (page.isStale && page.sink.offer(": anew\n\n")) startAnew(page);
    // What has no room even alone would keep back all that follows.
    const auto isDone = [&](const std::string& event) {
        return page.sink.offer(event) || event.size() > HttpAnswer::kMostWaiting;
    };
    while (!page.pending.empty() && isDone(*page.pending.front())) page.pending.pop_front();
}

}  // namespace kvx::rva
