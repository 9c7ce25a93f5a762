#include "mom/timed/CVekTimedWork.h"

#include "foundation/foundation.h"

CVekTimedWork::CVekTimedWork() = default;

CVekTimedWork::~CVekTimedWork() {
    delete m_name;
}

__boolean CVekTimedWork::RTWAddToPool() {
    return TRUE;
}

void CVekTimedWork::RTWSetPollIsExecuting(bool executing) {
    const CVekAutoMutex guard(m_mutex);
    m_executing = executing;
}

bool CVekTimedWork::RTWPollIsExecuting() const {
    const CVekAutoMutex guard(m_mutex);
    return m_executing;
}

void CVekTimedWork::RTWSetName(CVekAtom* name) {
    m_name = name;
}

CVekAtom* CVekTimedWork::RTWName() {
    return m_name;
}

void CVekTimedWork::RTWSetFrequency(int frequency) {
    m_frequency = frequency;
}

int CVekTimedWork::RTWFrequency() {
    return m_frequency;
}

void CVekTimedWork::RTWSetBucketKey(int key) {
    m_bucketKey = key;
}

int CVekTimedWork::RTWBucketKey() {
    return m_bucketKey;
}
