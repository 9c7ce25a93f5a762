#pragma once

#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "rv/object/RvDataCallback.h"
#include "rv/object/RvSession.h"
#include "tests/sim/Schedule.h"

class RvListener;

namespace kvx::sim {

class Client;

/// The callback of one listener or inbox, which keeps what it heard.
class Ear final : public RvDataCallback {
  public:
    Ear(Client& client, std::string wanted) : subject(std::move(wanted)), client_(client) {}
    void onData(const char* onSubject, RvSender* replyTo, const RvDatum& data,
                RvListener* from) override;

    std::string subject;
    RvListener* listener = nullptr;  ///< null before it is made and once it is deleted
    bool mayBeCalled = true;
    /// By sender and its link: the number heard last.
    std::map<std::pair<unsigned, unsigned>, unsigned> last;
    std::set<MessageId> heard;  ///< in the calm at the end

  private:
    Client& client_;
};

/// A program that uses the bus by the object layer: asynchronous on an event manager of its own, or
/// synchronous.
class Client {
  public:
    struct Traits {
        bool synchronous;
        std::string service;
        bool batching;
        bool isOld;
        int readBudget;
        bool follows;  // the interest of its space, from its first listen on
    };

    Client(unsigned number, Traits traits);

    /// Tells the program what to do. Called between the steps of the world.
    void post(const Action& action) { mailbox_.push_back(action); }
    void end() { ended_ = true; }
    [[nodiscard]] bool isIdle() const { return mailbox_.empty() && !busy_; }
    [[nodiscard]] Program& program() { return program_; }

    // The calm at the end: every listener of a joined client hears every mark on its subjects.
    [[nodiscard]] bool isJoined() const { return session_ && session_->handle() != nullptr; }
    [[nodiscard]] bool follows() const { return traits_.follows; }
    [[nodiscard]] const std::string& service() const { return traits_.service; }
    [[nodiscard]] const std::vector<std::unique_ptr<Ear>>& ears() const { return ears_; }
    struct Mark {
        MessageId id;
        std::string subject;
    };
    [[nodiscard]] const std::vector<Mark>& marks() const { return marks_; }
    /// Who listens to more than the daemon bears leaves.
    void beginCalm(std::size_t mostListens);

  private:
    friend class Ear;
    template <class Call>
    auto inLibrary(Call call);
    void run();
    void runLoop();
    void runByHand();
    void obeyNext();
    void obey(const Action& action);
    void join();
    void leave();
    void listen(const std::string& pattern);
    void adopt(Ear& ear, RvListener* made);
    void cancel(Ear& ear);
    void cancelAll();
    void publish(const std::string& subject, std::size_t size);
    void request(const std::string& subject);
    void heard(Ear& ear, const char* subject, RvSender* replyTo, const RvDatum& data);
    void actInCallback(Ear& ear, unsigned what);
    bool send(RvSender& sender, std::size_t size);
    Ear* anyEar(unsigned which);
    void removeDeadEars();

    const Traits traits_;
    Program& program_;
    std::deque<Action> mailbox_;
    bool ended_ = false;
    bool busy_ = false;
    bool calm_ = false;

    rvevm_Manager manager_ = nullptr;
    std::optional<RvSession> session_;
    unsigned sender_ = 0;  // the identity of the session's messages
    unsigned number_ = 0;  // of its last message
    std::map<std::pair<unsigned, unsigned>, unsigned> last_;  // of the session, likewise
    std::vector<std::unique_ptr<Ear>> ears_;
    std::vector<Mark> marks_;
    std::optional<unsigned> armed_;
};

/// The subjects that clients publish on.
[[nodiscard]] const std::vector<std::string>& subjects();

}  // namespace kvx::sim
