// The polls of one frequency are kept twice: in the list of names, which decides what polls exist,
// and in the buckets, one for each tick of the period, which decide when each runs. They agree
// after `RTWDDistributePolls`; in between the buckets lack the added polls, or are empty after a
// deletion, so that a deleted poll is never run.
//
// Distribution: with n polls and f buckets, the first n / f * f polls go to the buckets in turn,
// and the remaining n % f to the middles of as many equal slices of the period.

#include "mom/timed/CVekTimedWorkDist.h"

#include <cmath>
#include <memory>

#include "foundation/foundation.h"
#include "mom/base/VekTrace.h"
#include "mom/timed/CVekTimedWorkDistBucket.h"
#include "mom/timed/TimedShared.h"

namespace {

using kvx::newOrReport;
using kvx::timed::nameOf;

constexpr const char* kDistFile = "CVekTimedWorkDist";
constexpr int kNameSlots = 5000;

void reportDist(int code, const char* text) {
    kvx::report(code, kDistFile, 0, text);
}

CVekTimedWorkDistBucket* bucketOf(const CVekPointer* entry) {
    return entry != nullptr ? static_cast<CVekTimedWorkDistBucket*>(entry->RPData()) : nullptr;
}

CVekTimedWork* pollOf(const CVekListable* element) {
    return static_cast<CVekTimedWork*>(static_cast<const CVekPointer*>(element)->RPData());
}

CVekHashList* newList(int slots) {
    return newOrReport<CVekHashList>(kDistFile, "CVekTimedWorkDist::CVekTimedWorkDist", slots,
                                     FALSE);
}

void deleteBuckets(CVekHashList* buckets) {
    if (buckets == nullptr) return;
    const std::unique_ptr<CVekDoubleList> all(buckets->RHLIterator());
    for (auto* element = all->RDLHead(); element != nullptr; element = all->RDLGetNext(element)) {
        delete bucketOf(static_cast<const CVekPointer*>(element));
    }
    delete buckets;
}

// The bucket of the i-th of the `rest` remaining polls: the middle of the i-th slice.
int bucketOfRest(int i, int rest, int frequency) {
    const double half = static_cast<double>(frequency) / (2.0 * rest);
    const double step = static_cast<double>(frequency) / rest;
    return static_cast<int>(std::floor(i * step + half + 0.5));
}

}  // namespace

// The right side of the lock, for changing buckets; the manager's lock is held as well.
class CVekTimedWorkDist::BucketLock {
  public:
    explicit BucketLock(CVekAsymmetricMutex& lock) : m_lock(lock) { m_lock.RAMLockRight(); }
    ~BucketLock() { m_lock.RAMUnLockRight(); }
    BucketLock(const BucketLock&) = delete;
    BucketLock& operator=(const BucketLock&) = delete;

  private:
    CVekAsymmetricMutex& m_lock;
};

CVekTimedWorkDist::CVekTimedWorkDist(CVekTimedWorkMgr* manager, int frequency)
    : m_frequency(frequency),
      m_polls(newList(kNameSlots)),
      m_buckets(newList(frequency)),
      m_manager(manager) {
    if (frequency == 0 || frequency == -1) {
        reportDist(kvx::kInvalidArgument, "CVekTimedWorkDist::CVekTimedWorkDist");
    }
}

CVekTimedWorkDist::~CVekTimedWorkDist() {
    delete m_polls;
    const BucketLock guard(m_lock);
    deleteBuckets(m_buckets);
}

int CVekTimedWorkDist::RTWDAddPoll(CVekTimedWork* poll) {
    if (poll == nullptr) return kvx::kInvalidArgument;
    kvx::trace(kvx::kTraceCalls, "CVekTimedWorkDist::RTWDAddPoll ", nameOf(poll), "\n");
    auto* entry = newOrReport<CVekPointer>(kDistFile, "CVekTimedWorkDist::RTWDAddPoll", poll);
    const int result = m_polls->RHLAdd(nameOf(poll), entry);
    if (result == kvx::kOk) return result;
    delete entry;
    if (result == kvx::kKeyPresent) {
        kvx::traceUnlessQuiet("Warning: CVekTimedWorkDist::RTWDAddPoll duplcate object ",
                              nameOf(poll), "\n");
    } else {
        reportDist(result, "CVekTimedWorkDist::RTWDAddPoll");
    }
    return result;
}

int CVekTimedWorkDist::RTWDDeletePoll(CVekTimedWork* poll) {
    if (poll == nullptr) return kvx::kInvalidArgument;
    const char* name = nameOf(poll);
    kvx::trace(kvx::kTraceCalls, "CVekTimedWorkDist::RTWDDeletePoll ", name, "\n");
    RTWDClearBuckets();
    CVekPointer* entry = m_polls->RHLGet(name);
    if (entry == nullptr) {
        kvx::trace(kvx::kTraceCalls, "poller->RTWName()->RAString(): ", name, " does not exist\n");
        return kvx::kOk;
    }
    const int result = m_polls->RHLDelete(name, entry);
    if (result != kvx::kOk) reportDist(result, "CVekTimedWorkDist::RTWDDeletePoll");
    return result;
}

int CVekTimedWorkDist::RTWDChangePoll(CVekTimedWork* poll) {
    if (poll == nullptr) return kvx::kInvalidArgument;
    kvx::trace(kvx::kTraceCalls, "CVekTimedWorkDist::RTWDChangePoll ", nameOf(poll), "\n");
    CVekPointer* entry = m_polls->RHLGet(nameOf(poll));
    if (entry == nullptr) {
        RTWDAddPoll(poll);
        return kvx::kNotFound;
    }
    const BucketLock guard(m_lock);
    auto* bucket = bucketOf(m_buckets->RHLGet(pollOf(entry)->RTWBucketKey()));
    if (bucket != nullptr) bucket->RTWDBChangePoll(poll);
    entry->RPSetData(poll);
    return kvx::kOk;
}

int CVekTimedWorkDist::RTWDClearBuckets() {
    const BucketLock guard(m_lock);
    if (m_buckets->RHLLength() == 0) return kvx::kOk;
    deleteBuckets(m_buckets);
    m_buckets = newList(m_frequency);
    return kvx::kOk;
}

int CVekTimedWorkDist::RTWDDistributePolls() {
    kvx::trace(kvx::kTraceCalls, "CVekTimedWorkDist::RTWDDistributePolls ", m_frequency, "\n");
    RTWDClearBuckets();
    if (m_frequency < 1) return kvx::kOk;
    const std::unique_ptr<CVekDoubleList> polls(m_polls->RHLIterator());
    const int full = polls->RDLLength() / m_frequency * m_frequency;
    const int rest = polls->RDLLength() - full;
    int k = 0;
    for (auto* element = polls->RDLHead(); element != nullptr;
         element = polls->RDLGetNext(element), ++k) {
        const int index = k < full ? k % m_frequency : bucketOfRest(k - full, rest, m_frequency);
        if (index >= m_frequency) reportDist(kvx::kInvalidArgument, nullptr);
        RTWDAddToBucket(index, pollOf(element));
    }
    return kvx::kOk;
}

int CVekTimedWorkDist::RTWDAddToBucket(int index, CVekTimedWork* poll) {
    if (poll == nullptr) return kvx::kInvalidArgument;
    kvx::trace(kvx::kTraceCalls, "RTWDAddToBucket ", index, " ", nameOf(poll), "\n");
    if (index < 0) reportDist(kvx::kInvalidArgument, nullptr);
    const BucketLock guard(m_lock);
    auto* bucket = bucketOf(m_buckets->RHLGet(index));
    if (bucket == nullptr) bucket = addBucket(index);
    if (bucket != nullptr) bucket->RTWDBAddPoll(poll);
    return kvx::kOk;
}

// The caller holds the lock. On failure reports and returns null.
CVekTimedWorkDistBucket* CVekTimedWorkDist::addBucket(int index) {
    constexpr const char* kText = "CVekTimedWorkDist::RTWDAddToBucket";
    auto* bucket = newOrReport<CVekTimedWorkDistBucket>(kDistFile, kText, m_manager, index);
    auto* entry = newOrReport<CVekPointer>(kDistFile, kText, bucket);
    const int result = m_buckets->RHLAdd(index, entry);
    if (result == kvx::kOk) return bucket;
    reportDist(result, kText);
    delete entry;
    delete bucket;
    return nullptr;
}

int CVekTimedWorkDist::RTWDOnTimer() {
    m_lock.RAMLockLeft();
    const kvx::timed::LockHeld held(m_manager);
    auto* bucket = bucketOf(m_buckets->RHLGet(m_position));
    if (bucket != nullptr) bucket->RTWDBDoPolling();
    ++m_position;
    if (m_position >= m_frequency) m_position = 0;
    m_lock.RAMUnLockLeft();
    return kvx::kOk;
}

int CVekTimedWorkDist::RTWDGetFrequency() {
    return m_frequency;
}
