#include "foundation/CVekStack.h"

#include <new>

#include "foundation/ErrorCodes.h"

int CVekStack::RSPush(void* element) {
    if (isFull()) return kvx::kNotCompleted;
    try {
        m_elements.push_back(element);
    } catch (const std::bad_alloc&) {
        return kvx::kNoMemory;
    }
    return kvx::kOk;
}

int CVekStack::RSPushBottom(void* element) {
    if (isFull()) return kvx::kNotCompleted;
    try {
        m_elements.push_front(element);
    } catch (const std::bad_alloc&) {
        return kvx::kNoMemory;
    }
    return kvx::kOk;
}

void* CVekStack::RSPop() {
    if (m_elements.empty()) return nullptr;
    void* element = m_elements.front();
    m_elements.pop_front();
    return element;
}
