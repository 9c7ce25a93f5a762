#include <cstdlib>
#include <ctime>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "platform/Clock.h"
#include "platform/File.h"
#include "platform/Log.h"
#include "platform/Signals.h"
#include "rvbridge/Bridge.h"
#include "rvbridge/Engine.h"
#include "rvbridge/Options.h"

namespace {

using namespace kvx::bridge;
namespace platform = kvx::platform;

constexpr unsigned long kTickMs = 100;
constexpr platform::Milliseconds kFarewellMs = 1'000;

// The loop of the program: the engine, and a bridge for each space.
class Program final : public EngineOwner, public BridgeOwner {
  public:
    explicit Program(const Options& options) : options_(options), log_(levelOf(options)) {}

    int run() {
        if (!options_.misread.empty()) {
            log_.warning("left out a block of the configuration file: " + options_.misread);
        }
        if (rvevm_Create(&manager_) != 0) return fail("the event manager cannot start");
        const int status = serve();
        if (engine_ && !engine_->stop(kFarewellMs)) std::_Exit(status);
        bridges_.clear();
        engine_.reset();
        rvevm_Destroy(manager_);
        return status;
    }

  private:
    static platform::LogLevel levelOf(const Options& options) {
        return options.isVerbose ? platform::LogLevel::Debug : platform::LogLevel::Info;
    }

    int fail(const std::string& why) {
        log_.error(why);
        return 1;
    }

    int serve() {
        const auto onSignal = [](void*, void* closure, int, void*) {
            rvevm_Stop(static_cast<Program*>(closure)->manager_);
        };
        const auto onTick = [](void*, void* closure, int, void*) {
            for (auto& bridge : static_cast<Program*>(closure)->bridges_) bridge->tick();
        };
        rvevm_Id id = nullptr;
        for (const int signal :
             {platform::signal_number::terminate(), platform::signal_number::interrupt()}) {
            (void)rvevm_AddSignal(manager_, &id, signal, onSignal, this);
        }
        engine_ = std::make_unique<Engine>(manager_, options_.engine, *this);
        if (const std::string why = engine_->start(); !why.empty()) return fail(why);
        std::random_device device;
        const std::uint64_t epoch = (std::uint64_t{device()} << 32U) | device();
        for (const auto& space : options_.spaces) {
            const bool isOnly = options_.spaces.size() == 1;
            logs_.emplace_back(levelOf(options_),
                               isOnly ? "" : '[' + space.service + ':' + space.network + "] ");
            bridges_.push_back(std::make_unique<Bridge>(
                manager_, options_, space,
                BridgeIdentity{options_.host, epoch, platform::utcText(std::time(nullptr))},
                *engine_, logs_.back(), *this));
        }
        for (auto& bridge : bridges_) bridge->start();
        if (rvevm_AddRepeatTimer(manager_, &id, kTickMs, onTick, this) != 0) {
            return fail("no timer");
        }
        rvevm_MainLoop(manager_);
        for (auto& bridge : bridges_) bridge->stop();
        return status_;
    }

    void onEngineUp() override {
        lastWhy_.clear();
        isForbidden_ = false;
        log_.info("the engine is there");
        for (auto& bridge : bridges_) bridge->onEngineUp();
    }
    // Attempts that fail one after another for the same reason are told once.
    void onEngineDown(const std::string& why) override {
        if (lastWhy_ != why) log_.warning("no engine: " + why);
        lastWhy_ = why;
        for (auto& bridge : bridges_) bridge->onEngineDown();
    }
    // Once a connection: it happens for each subject.
    void onEngineForbids(const std::string& what) override {
        if (!std::exchange(isForbidden_, true)) log_.warning("the engine forbids: " + what);
    }
    void onEngineMessage(std::string_view subject, kvx::wire::Bytes bytes) override {
        for (auto& bridge : bridges_) {
            if (bridge->onEngineMessage(subject, bytes)) return;
        }
    }
    void onEngineLoss(LossCause cause) override {
        for (auto& bridge : bridges_) bridge->onEngineLoss(cause);
    }

    void onBridgeReady() override {
        if (++ready_ != bridges_.size()) return;
        const std::string error =
            platform::writeOutput("rvbridge ready as " + options_.host + '\n');
        if (!error.empty()) log_.error("standard output: " + error);
    }
    void onBridgeRefused(const std::string& reason) override {
        status_ = fail(reason);
        rvevm_Stop(manager_);
    }

    const Options& options_;
    platform::Log log_;
    std::list<platform::Log> logs_;  // of the bridges
    rvevm_Manager manager_ = nullptr;
    std::unique_ptr<Engine> engine_;
    std::vector<std::unique_ptr<Bridge>> bridges_;
    std::size_t ready_ = 0;
    std::string lastWhy_;
    bool isForbidden_ = false;
    int status_ = 0;
};

}  // namespace

/// `rvbridge`: joins the daemon of this host with those of others until SIGTERM or SIGINT. Exit
/// status 0; 1 when another bridge has its name or its daemon; 2 for an invalid command line.
int main(int argc, char** argv) {
    kvx::platform::ignoreSignal(kvx::platform::signal_number::hangup());
    const auto commandLine = parseCommandLine(argc, argv);
    if (commandLine.exitStatus) return *commandLine.exitStatus;
    return Program(commandLine.options).run();
}
