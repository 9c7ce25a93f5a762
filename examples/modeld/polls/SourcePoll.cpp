// Changing rows and publishing the changes are two steps with the database between them: the
// notices are stored with the rows, in one transaction, and whoever is active publishes them from
// there, and forgets them at a later look, when the send queue has been empty since. So a change is
// published although the member that found it died before it could, or stood by and shares its
// database with the active one. The price is that a notice may be published twice: by a member that
// dies before it forgets, or by two members with databases of their own around a take-over. A
// notice says what the row is now, so the second one changes nothing.

#include "examples/modeld/polls/SourcePoll.h"

#include <utility>

#include "examples/modeld/service/Log.h"

namespace modeld {

namespace {

// How long a standby keeps notices: a take-over, and the looks that the active member had for it.
constexpr int kTakeOverSeconds = 6;
constexpr int kLooks = 3;

void warnUnlessDone(const std::optional<Refusal>& refusal) {
    if (refusal) Log::warning("{}", refusal->message);
}

}  // namespace

SourcePoll::SourcePoll(CVekEngine& engine, FileWatch watch, Settings settings)
    : engine_(engine), settings_(std::move(settings)), watch_(std::move(watch)) {
    RTWSetName(new CVekAtom("source"));
    RTWSetFrequency(settings_.seconds);
}

// A member without files has notices to look for only, and leaves a quiet database alone.
bool SourcePoll::hasWork() {
    if (!settings_.source.files.empty()) return true;
    Refusal ignored;
    const auto store = Store::open(settings_.database, Store::Access::ReadOnly, ignored);
    return store && store->hasNotices();
}

void SourcePoll::RTWDoPoll() {
    if (!hasWork()) return;
    Refusal refusal;
    const auto store = Store::open(settings_.database, Store::Access::ReadWrite, refusal);
    if (!store) {
        Log::warning("{}", refusal.message);
        return;
    }
    if (watch_.look()) refresh(*store);
    if (engine_.REIsActive() == TRUE) {
        publish(*store);
    } else {
        const int seconds = kTakeOverSeconds + kLooks * settings_.seconds;
        warnUnlessDone(store->dropNotices(std::chrono::seconds(seconds)));
    }
}

// A source that is bad is told once and left until it changes again; all else is tried again.
void SourcePoll::refresh(Store& store) {
    const auto begin = std::chrono::steady_clock::now();
    Refreshed done;
    const auto refusal = store.refresh(
        settings_.source,
        [this](Change change, const Row& row) {
            return changeNotice(settings_.source.table, change, row);
        },
        done);
    warnUnlessDone(refusal);
    const bool again =
        refusal && (refusal->error == StoreError::Failed || refusal->error == StoreError::Busy);
    if (!again) watch_.know();
    if (refusal) return;
    const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - begin;
    Log::info("'{}' brought up to date in {:.2f} s: {} rows inserted, {} changed, {} deleted",
              settings_.source.table, spent.count(), done.inserted, done.changed, done.deleted);
}

void SourcePoll::publish(Store& store) {
    if (engine_.RESendQueueLength() == 0) warnUnlessDone(store.forgetNotices(queued_));
    ChangePublisher publisher(engine_, settings_.subject);
    const auto refusal =
        store.readNotices(queued_, [&](std::int64_t number, std::string_view notice) {
            publisher.add(notice);
            queued_ = number;
        });
    publisher.flush();
    warnUnlessDone(refusal);
    if (publisher.published() != 0) {
        Log::info("{} changes published on {}", publisher.published(), settings_.subject);
    }
}

}  // namespace modeld
