#include "foundation/CVekListable.h"

#include "foundation/CVekDoubleList.h"

CVekListable::~CVekListable() {
    if (m_place.list != nullptr) m_place.list->unlink(this);
}
