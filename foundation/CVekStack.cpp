#include "foundation/CVekStack.h"

#include "foundation/ErrorCodes.h"

int CVekStack::RSPush(void* element) {
    if (isFull()) return kvx::kNotCompleted;
    m_elements.push_back(element);
    return kvx::kOk;
}

int CVekStack::RSPushBottom(void* element) {
    if (isFull()) return kvx::kNotCompleted;
    m_elements.push_front(element);
    return kvx::kOk;
}

void* CVekStack::RSPop() {
    if (m_elements.empty()) return nullptr;
    void* element = m_elements.front();
    m_elements.pop_front();
    return element;
}
