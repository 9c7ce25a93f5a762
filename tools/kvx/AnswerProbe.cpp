// Each question has a listener of its own until the end, since a second answer may come long after
// the first. A member that says who it is counts once; those that do not are counted by their first
// packets.

#include "tools/kvx/AnswerProbe.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "kvx/Answer.h"
#include "kvx/Conversation.h"
#include "kvx/ServiceName.h"
#include "platform/Memory.h"

namespace kvx::tool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMostAsked = 1000;
constexpr std::size_t kMostAnswerers = 100;
constexpr const char* kText = "select * from services limit 0";
constexpr std::uint32_t kPackets = 1;  // the window: the first packet says enough

}  // namespace

class AnswerProbe::Question : public RvDataCallback {
  public:
    Question(CVekRvNet& net, const ServiceName& service)
        : net_(net), answer_{service.text(), service.querySubject(), 0, {}} {}

    // A query that cannot be sent counts as not answered.
    void send() {
        int status = kOk;
        RvMsg message = CVekQryInfo::RQIMessage(kText);
        message.append(conversation::kWindowField, kPackets);
        const kvx::Text subject(net_.RRNDomainSubj(answer_.subject.c_str()));
        const std::unique_ptr<RvSender> sender(net_.RRNNewSender(&status, subject.get(), nullptr));
        if (sender) inbox_.reset(sender->sendRequest(message, 0, this, nullptr));
    }

    void onData(const char*, RvSender* replyTo, const RvDatum& data, RvListener* inbox) override {
        const auto header = detail::headerOf(data);
        if (!header) return;
        const char* const given = replyTo != nullptr ? replyTo->subject() : nullptr;
        note(given != nullptr ? given : "", header->sequence);
        if (given == nullptr || header->count == 1) return;
        int status = kOk;
        const std::unique_ptr<RvSender> sender(net_.RRNNewSender(&status, given, nullptr));
        if (sender) sender->send(conversation::takeMessage({inbox->subject(), 0}));
    }

    [[nodiscard]] const Answer& answer() const { return answer_; }

  private:
    void note(const std::string& inbox, std::int64_t number) {
        auto& all = answer_.answerers;
        const std::string name = inbox.empty() ? "-" : inbox;
        const bool isKnown = inbox.empty() ? number != 1 : std::ranges::count(all, name) != 0;
        if (isKnown || all.size() >= kMostAnswerers) return;
        if (all.empty()) {
            answer_.milliseconds =
                std::chrono::duration<double, std::milli>(Clock::now() - begin_).count();
        }
        all.push_back(name);
    }

    CVekRvNet& net_;
    const Clock::time_point begin_ = Clock::now();
    Answer answer_;
    std::unique_ptr<RvListener> inbox_;
};

AnswerProbe::AnswerProbe(CVekRvNet& net) : net_(net) {}

AnswerProbe::~AnswerProbe() = default;

void AnswerProbe::askAll() {
    for (const auto& service : CVekServiceToSubjectMapper::ms_ServiceEnumMap) ask(service.name);
}

void AnswerProbe::ask(const std::string& service) {
    const auto name = ServiceName::of(service);
    if (!name || subjects_.size() >= kMostAsked) return;
    if (!subjects_.insert(name->querySubject()).second) return;
    questions_.emplace_back(std::make_unique<Question>(net_, *name))->send();
}

std::vector<Answer> AnswerProbe::answers() const {
    std::vector<Answer> given;
    for (const auto& question : questions_) {
        if (!question->answer().answerers.empty()) given.push_back(question->answer());
    }
    return given;
}

}  // namespace kvx::tool
