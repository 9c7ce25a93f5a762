#include "foundation/CVekListable.h"

#include "foundation/CVekDoubleList.h"

CVekListable::~CVekListable() {
    if (m_list != nullptr) m_list->unlink(this);
}
