#include "mom/timed/CVekTimedWorkDistBucket.h"

#include <cstring>

#include "foundation/foundation.h"
#include "mom/base/VekTrace.h"
#include "mom/timed/CVekTimedWorkMgr.h"
#include "mom/timed/TimedShared.h"

namespace {

constexpr const char* kBucketFile = "CVekTimedWorkDistBucket";

CVekPointer* entryAt(CVekListable* element) {
    return static_cast<CVekPointer*>(element);
}

}  // namespace

CVekTimedWorkDistBucket::CVekTimedWorkDistBucket(CVekTimedWorkMgr* manager, int key)
    : m_manager(manager),
      m_key(key),
      m_polls(kvx::newOrReport<CVekDoubleList>(
          kBucketFile, "CVekTimedWorkDistBucket::CVekTimedWorkDistBucket")) {}

CVekTimedWorkDistBucket::~CVekTimedWorkDistBucket() {
    delete m_polls;
}

void CVekTimedWorkDistBucket::RTWDBAddPoll(CVekTimedWork* poll) {
    if (poll == nullptr) return kvx::report(kvx::kInvalidArgument, kBucketFile, 0);
    auto* entry =
        kvx::newOrReport<CVekPointer>(kBucketFile, "CVekTimedWorkDistBucket::RTWDBAddPoll", poll);
    if (m_polls == nullptr || m_polls->RDLAddToListEnd(entry) != kvx::kOk) delete entry;
    poll->RTWSetBucketKey(m_key);
}

void CVekTimedWorkDistBucket::RTWDBChangePoll(CVekTimedWork* poll) {
    if (poll == nullptr) return kvx::report(kvx::kInvalidArgument, kBucketFile, 0);
    if (m_polls == nullptr) return;
    for (auto* element = m_polls->RDLHead(); element != nullptr;
         element = m_polls->RDLGetNext(element)) {
        auto* held = static_cast<CVekTimedWork*>(entryAt(element)->RPData());
        if (std::strcmp(kvx::timed::nameOf(held), kvx::timed::nameOf(poll)) != 0) continue;
        entryAt(element)->RPSetData(poll);
        poll->RTWSetBucketKey(m_key);
        return;
    }
}

void CVekTimedWorkDistBucket::RTWDBDoPolling() {
    if (m_polls == nullptr) return;
    for (auto* element = m_polls->RDLHead(); element != nullptr;
         element = m_polls->RDLGetNext(element)) {
        m_manager->RTWMAddPollWork(static_cast<CVekTimedWork*>(entryAt(element)->RPData()));
    }
}

int CVekTimedWorkDistBucket::RTWDBGetPosition() {
    return m_key;
}
