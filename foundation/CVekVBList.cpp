#include "foundation/CVekVBList.h"

int CVekVBList::RVBLAddToListEnd(CVekVarBind* binding) {
    return RDLAddToListEnd(binding);
}

CVekVarBind* CVekVBList::RVBLHead() const {
    return dynamic_cast<CVekVarBind*>(RDLHead());
}

CVekVarBind* CVekVBList::RVBLGetNext(const CVekVarBind* binding) const {
    return dynamic_cast<CVekVarBind*>(RDLGetNext(binding));
}
