// Changing rows and publishing the changes are two steps: the notices are stored with the rows, in
// one transaction; the active member publishes them from the database, and deletes them at a later
// look, when the send queue has been empty since. So a change is published even when the member
// that found it ends before publishing, or is a standby that shares its database with the active
// one. A notice may be published twice: by a member that ends before it deletes it, or by two
// members with separate databases around a take-over. An older value never follows a newer one: a
// notice has the current row, the store keeps the newest notice of a row, nothing is published
// while the files may be newer, and no refresh of another process comes between reading the notices
// and numbering them. So an answer has every row as it is after the changes of its number, or newer
// with the notice yet to come.
//
// While the daemon is lost nothing is published or deleted: notices queued at the loss are
// published again, and a standby does not know yet whether others have published its notices.

#include "examples/modeld/polls/SourcePoll.h"

#include <memory>
#include <utility>

#include "examples/modeld/service/DaemonLink.h"
#include "examples/modeld/service/Log.h"
#include "examples/modeld/service/RowRecord.h"

namespace modeld {

namespace {

// How long a standby keeps notices: a take-over, and the active member's looks before it.
constexpr int kTakeOverSeconds = 6;
constexpr int kLooks = 3;
constexpr const char* kChangeWords[] = {"inserted", "changed", "deleted"};

}  // namespace

std::string changeNotice(const std::string& table, Change change, const Row& row) {
    CVekBaseRecord record;
    const char* word = kChangeWords[static_cast<int>(change)];
    addField(record, "@change", std::make_unique<CVekAtom>(word));
    addField(record, "@table", std::make_unique<CVekAtom>(table.c_str()));
    addColumns(record, row);
    unsigned char* bytes = nullptr;
    int length = 0;
    record.ROMEncode(&bytes, &length);
    const std::unique_ptr<unsigned char, kvx::FreeDeleter> owned(bytes);
    return bytes == nullptr ? std::string()
                            : std::string(reinterpret_cast<const char*>(bytes),
                                          static_cast<std::size_t>(length));
}

SourcePoll::SourcePoll(CVekEngine& engine, kvx::Changes& changes, FileWatch watch,
                       Settings settings)
    : engine_(engine), changes_(changes), settings_(std::move(settings)), watch_(std::move(watch)) {
    RTWSetName(new CVekAtom("source"));
    RTWSetFrequency(settings_.seconds);
}

// A member without files only looks for notices; without any it does not open the database for
// writing.
bool SourcePoll::hasWork() {
    if (!settings_.source.files.empty()) return true;
    Refusal ignored;
    const auto store = Store::open(settings_.database, Store::Access::ReadOnly, ignored);
    return store && store->hasNotices();
}

void SourcePoll::RTWDoPoll() {
    warnedBefore_ = std::exchange(warned_, {});
    if (!hasWork()) return;
    const bool hasChanged = watch_.look();
    tellTurns();
    Refusal refusal;
    const auto store = Store::open(settings_.database, Store::Access::ReadWrite, refusal);
    if (!store) {
        warnOnce(refusal);
        return;
    }
    if (hasChanged) refresh(*store);
    const bool isActive = changes_.read([] {}).epoch != 0;
    if (isActive || !DaemonLink::isUp()) standingBySince_ = Clock::now();
    if (!DaemonLink::isUp()) return;
    if (!isActive) {
        dropOldNotices(*store);
    } else if (watch_.isSettled()) {
        publish(*store);
    }
}

void SourcePoll::tellTurns() {
    for (const auto& [file, isThere] : watch_.turns()) {
        if (isThere) {
            Log::info("{}: is back", file);
        } else {
            Log::warning("{}: is gone; the table stays as it is until it is back", file);
        }
    }
}

// Logs a warning that repeats at every look only once.
void SourcePoll::warnOnce(const std::optional<Refusal>& refusal) {
    if (!refusal) return;
    warned_ = refusal->message;
    if (warned_ == warnedBefore_) return;
    if (refusal->error == StoreError::NoDatabase || refusal->error == StoreError::BadSource) {
        Log::warning("{}", refusal->message);
    } else {
        Log::warning("{}: {}", settings_.database, refusal->message);
    }
}

void SourcePoll::dropOldNotices(Store& store) {
    const std::chrono::seconds kept(kTakeOverSeconds + kLooks * settings_.seconds);
    if (Clock::now() - standingBySince_ > kept) warnOnce(store.dropNotices(kept));
}

// A bad source is reported once and ignored until it changes; all else is tried again.
void SourcePoll::refresh(Store& store) {
    const auto begin = std::chrono::steady_clock::now();
    Refreshed done;
    const auto refusal = store.refresh(
        settings_.source,
        [this](Change change, const Row& row) {
            return changeNotice(settings_.source.table, change, row);
        },
        done);
    warnOnce(refusal);
    const bool again =
        refusal && (refusal->error == StoreError::Failed || refusal->error == StoreError::Busy);
    if (!again) watch_.know();
    if (refusal) return;
    const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - begin;
    Log::info("'{}' brought up to date in {:.2f} s: {} rows inserted, {} changed, {} deleted",
              settings_.source.table, spent.count(), done.inserted, done.changed, done.deleted);
}

void SourcePoll::publish(Store& store) {
    const unsigned losses = DaemonLink::losses();
    if (std::exchange(losses_, losses) != losses) queued_ = 0;
    if (engine_.RESendQueueLength() == 0) warnOnce(store.forgetNotices(queued_));
    std::uint64_t published = 0;
    warnOnce(
        store.readNotices(queued_, [&](std::int64_t last, std::span<const std::string> notices) {
            if (!commit(notices)) return false;
            queued_ = last;
            published += notices.size();
            return true;
        }));
    if (published != 0 && !settings_.subject.empty()) {
        Log::info("{} changes published on {}", published, settings_.subject);
    }
}

// False when they wait for the next look.
bool SourcePoll::commit(std::span<const std::string> notices) {
    if (settings_.subject.empty()) return true;
    std::vector<kvx::Record> records;
    for (const std::string& notice : notices) {
        if (auto record = kvx::Record::decode(std::as_bytes(std::span(notice)))) {
            records.push_back(std::move(*record));
        }
    }
    const auto committed = changes_.commit(records);
    if (!committed && committed.error().code == kvx::Errc::InvalidArgument) {
        Log::warning("{}", committed.error().message());
    }
    return committed.has_value();
}

}  // namespace modeld
