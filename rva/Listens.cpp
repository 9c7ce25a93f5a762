#include "rva/Listens.h"

#include <algorithm>
#include <utility>

#include "tools/bus/MessageJson.h"

namespace kvx::rva {

struct Listens::Listener {
    const std::vector<std::string> subjects;
    EventSink sink;
};

// A subscription of the bus, and who shares it.
class Listens::Subject : public RvDataCallback {
  public:
    bool start(CVekRvNet& net, const std::string& subject) {
        int status = kOk;
        listener_.reset(net.RRNNewListener(&status, subject.c_str(), this, nullptr));
        return listener_ != nullptr;
    }

    void onData(const char* subject, RvSender* replyTo, const RvDatum& data, RvListener*) override {
        const char* const reply = replyTo != nullptr ? replyTo->subject() : nullptr;
        const std::string event =
            eventText("message", bus::lineOf(bus::messageJson(subject, reply, data)));
        for (const auto& one : listeners) one->sink.send(event);
    }

    std::vector<ListenerPtr> listeners;

  private:
    std::unique_ptr<RvListener> listener_;
};

Listens::Listens(CVekRvNet& net)
    : net_(net), ticker_(net, kEventTickMs, bus::Ticker::Repeat::Forever, [this] { tick(); }) {}

Listens::~Listens() = default;

void Listens::listen(std::vector<std::string> subjects, const HttpAnswerPtr& answer,
                     std::shared_ptr<const void> slot) {
    answer->expectWithin(kHandOver);
    auto listener = std::make_shared<Listener>(Listener{std::move(subjects), EventSink(answer)});
    answer->onGone([this, weak = std::weak_ptr(listener)] {
        net_.RRNPost([this, weak] {
            if (const auto gone = weak.lock()) remove(gone);
        });
    });
    const int status = net_.RRNPost([this, listener, answer, slot = std::move(slot)] {
        if (answer->isOpen()) add(listener);
    });
    if (status != kOk) answer->reply(errorReply(503, "Ended", "the agent ends"));
}

void Listens::add(const ListenerPtr& listener) {
    listeners_.push_back(listener);
    for (const auto& subject : listener->subjects) {
        if (subscribe(listener, subject)) continue;
        listener->sink.refuse(400, "InvalidArgument", "'" + subject + "' cannot be listened on");
        return remove(listener);
    }
    if (!listener->sink.start()) return remove(listener);
    bus::Json subjects = bus::Json::array();
    for (const auto& subject : listener->subjects) subjects.push_back(bus::textJson(subject));
    listener->sink.send(
        eventText("listening", bus::lineOf(bus::Json{{"subjects", std::move(subjects)}})));
}

bool Listens::subscribe(const ListenerPtr& listener, const std::string& subject) {
    auto& shared = subjects_[subject];
    if (!shared) {
        shared = std::make_unique<Subject>();
        if (!shared->start(net_, subject)) {
            subjects_.erase(subject);
            return false;
        }
    }
    shared->listeners.push_back(listener);
    return true;
}

void Listens::remove(const ListenerPtr& listener) {
    std::erase(listeners_, listener);
    for (const auto& subject : listener->subjects) {
        const auto shared = subjects_.find(subject);
        if (shared == subjects_.end()) continue;
        std::erase(shared->second->listeners, listener);
        if (shared->second->listeners.empty()) subjects_.erase(shared);
    }
}

void Listens::tell(std::string_view event) {
    for (const auto& listener : listeners_) listener->sink.send(event);
}

void Listens::tick() {
    for (const auto& listener : listeners_) listener->sink.tick();
}

}  // namespace kvx::rva
