// The signal dispatcher with real signals.

#include <signal.h>

#include "foundation/CSignalHandler.h"
#include "platform/Signals.h"

namespace {

using kvx::platform::raiseSignal;
using Names = std::vector<std::string>;

struct Callback : CCallbackBase {
    explicit Callback(std::string label) : name(std::move(label)) {}
    ~Callback() override {
        if (telling) std::fprintf(stderr, "[%s deleted]", name.c_str());
    }
    void operator()() override {}
    const std::string name;
    static inline bool telling = false;
};

// Registers one callback for each of the five and remembers what it is asked to run.
struct Recorder : CSignalHandlerInterface {
    bool registerHandler(CCallbackBase* exitCallback) override {
        ++registrations;
        EXPECT_EQ(exitCallback, nullptr);
        for (const int number : {2, 15, 34, 35, 36}) {
            EXPECT_TRUE(CSignalHandler::Instance().add(number, new Callback(std::to_string(number)),
                                                       false));
        }
        return true;
    }
    bool runHandler(CCallbackBase* callback) override {
        ran.push_back(dynamic_cast<Callback*>(callback)->name);
        return true;
    }
    int registrations = 0;
    std::vector<std::string> ran;
};

struct Signals : testing::Test {
    void TearDown() override { handler.stop(); }

    Names processed() {
        recorder.ran.clear();
        handler.processSignals();
        return recorder.ran;
    }

    CSignalHandler& handler = CSignalHandler::Instance();
    Recorder recorder;
};

}  // namespace

TEST_F(Signals, ReachTheirLastCallbacksOnlyWhenProcessed) {
    handler.manage(&recorder);
    EXPECT_EQ(recorder.registrations, 1);
    const std::map<int, std::string> numbers = {
        {SIGINT, "2"}, {SIGTERM, "15"}, {SIGHUP, "34"}, {SIGUSR1, "35"}, {SIGUSR2, "36"}};
    for (const auto& [systemNumber, name] : numbers) {
        raiseSignal(systemNumber);
        raiseSignal(systemNumber);
        EXPECT_TRUE(recorder.ran.empty());
        EXPECT_EQ(processed(), Names{name});
        EXPECT_EQ(processed(), Names{});
    }
    handler.handleSignal(35);
    handler.handleSignal(2);
    handler.handleSignal(1);  // none of the five
    EXPECT_EQ(processed(), (Names{"2", "35"}));

    auto* replacement = new Callback("replacement");
    EXPECT_TRUE(handler.add(36, replacement, false));
    EXPECT_TRUE(handler.add(36, replacement, false));
    Callback refused("refused");
    EXPECT_FALSE(handler.add(10, &refused, false));
    EXPECT_FALSE(handler.add(36, nullptr, false));
    raiseSignal(SIGUSR2);
    EXPECT_EQ(processed(), Names{"replacement"});
}

TEST_F(Signals, AreForgottenAtAStopAndManagedAgainAfterIt) {
    handler.manage(&recorder);
    raiseSignal(SIGHUP);
    handler.stop();
    EXPECT_EQ(processed(), Names{});
    EXPECT_EXIT(raiseSignal(SIGUSR2), testing::KilledBySignal(SIGUSR2), "");
    handler.manage(&recorder);
    EXPECT_EQ(recorder.registrations, 2);
    EXPECT_EQ(processed(), Names{});  // what waited at the stop stays forgotten
    raiseSignal(SIGHUP);
    EXPECT_EQ(processed(), Names{"34"});
}

TEST_F(Signals, EndWithTheHandlerThatDiesWhileTheyAreProcessed) {
    static int runs;
    runs = 0;
    struct DiesAtOnce : Recorder {
        bool runHandler(CCallbackBase* /*callback*/) override {
            ++runs;
            delete this;
            return true;
        }
    };
    handler.manage(new DiesAtOnce);
    for (const int number : {2, 15, 36}) handler.handleSignal(number);
    handler.processSignals();
    EXPECT_EQ(runs, 1);
    EXPECT_EXIT(raiseSignal(SIGTERM), testing::KilledBySignal(SIGTERM), "");
}

TEST_F(Signals, BlockInTheCallingThreadAlone) {
    std::thread([] {
        CSignalHandler::blockAll();
        for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGUSR2}) {
            EXPECT_TRUE(kvx::platform::isSignalBlocked(number));
        }
    }).join();
    EXPECT_FALSE(kvx::platform::isSignalBlocked(SIGTERM));
}

TEST_F(Signals, DeleteEveryCallbackOnceAtExit) {
    const auto exitWithSharedCallback = [this] {
        Callback::telling = true;
        handler.add(2, new Callback("replaced"), false);
        auto* shared = new Callback("shared");
        for (const int number : {2, 15, 35}) handler.add(number, shared, false);
        handler.stop();
        std::exit(0);
    };
    EXPECT_EXIT(exitWithSharedCallback(), testing::ExitedWithCode(0),
                "^[^s]*\\[replaced deleted\\]\\[shared deleted\\]$");
}
