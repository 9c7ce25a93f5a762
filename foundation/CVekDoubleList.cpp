// The links, and the list that an element belongs to, are in the elements. So no operation on a
// live element searches, and an element deleted by other code unlinks itself.

#include "foundation/CVekDoubleList.h"

#include <utility>

#include "foundation/CVekListable.h"
#include "foundation/ErrorCodes.h"

// Delegating, so that the destructor deletes the copies made when a further one cannot be made.
CVekDoubleList::CVekDoubleList(const CVekDoubleList& other) : CVekDoubleList() {
    for (CVekListable* element = other.m_head; element != nullptr;
         element = element->m_place.next) {
        RDLAddToListEnd(element->RLTargetDeepCopy(element));
    }
}

// The copies are made first: `other` may belong to an element of this list.
CVekDoubleList& CVekDoubleList::operator=(const CVekDoubleList& other) {
    if (this == &other) return *this;
    CVekDoubleList copies(other);
    RDLClear();
    for (CVekListable* element = copies.m_head; element != nullptr;
         element = element->m_place.next) {
        element->m_place.list = this;
    }
    std::swap(m_head, copies.m_head);
    std::swap(m_tail, copies.m_tail);
    std::swap(m_length, copies.m_length);
    return *this;
}

CVekDoubleList::~CVekDoubleList() {
    RDLClear();
}

int CVekDoubleList::RDLAddToListEnd(CVekListable* element) {
    if (element == nullptr || element->m_place.list != nullptr) return kvx::kInvalidArgument;
    element->m_place = {this, m_tail, nullptr};
    if (m_tail == nullptr) {
        m_head = element;
    } else {
        m_tail->m_place.next = element;
    }
    m_tail = element;
    ++m_length;
    return kvx::kOk;
}

CVekListable* CVekDoubleList::RDLGetNext(const CVekListable* element) const {
    return element == nullptr || element->m_place.list != this ? nullptr : element->m_place.next;
}

int CVekDoubleList::RDLDeleteListable(CVekListable* element) {
    const int result = RDLTakeListable(element);
    if (result == kvx::kOk) delete element;
    return result;
}

int CVekDoubleList::RDLAttemptToDeleteListable(CVekListable* element) {
    for (CVekListable* held = m_head; held != nullptr; held = held->m_place.next) {
        if (held == element) return RDLDeleteListable(held);
    }
    return kvx::kNotFound;
}

int CVekDoubleList::RDLTakeListable(CVekListable* element) {
    if (element == nullptr || element->m_place.list != this) return kvx::kNotFound;
    unlink(element);
    return kvx::kOk;
}

void CVekDoubleList::RDLClear() {
    // An element's destructor may change the list, so the head is read anew at each step.
    while (m_head != nullptr) {
        CVekListable* element = m_head;
        unlink(element);
        delete element;
    }
}

void CVekDoubleList::unlink(CVekListable* element) noexcept {
    const CVekListable::Place place = std::exchange(element->m_place, {});
    if (element == m_head) {
        m_head = place.next;
    } else {
        place.previous->m_place.next = place.next;
    }
    if (element == m_tail) {
        m_tail = place.previous;
    } else {
        place.next->m_place.previous = place.previous;
    }
    --m_length;
}

CVekListable::~CVekListable() {
    if (m_place.list != nullptr) m_place.list->unlink(this);
}
