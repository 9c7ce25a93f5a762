#include "foundation/CVekBag.h"

void CVekBag::RBAdd(void* element) {
    m_elements.push_back(element);
}

void* CVekBag::RBGet(unsigned index) const {
    return index < m_elements.size() ? m_elements[index] : nullptr;
}
