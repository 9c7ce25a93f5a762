#include "foundation/CVekPointer.h"

CVekPointer::~CVekPointer() = default;

CVekListable* CVekPointer::RLTargetDeepCopy(const CVekListable* source) {
    const auto* original = dynamic_cast<const CVekPointer*>(source);
    return original == nullptr ? nullptr : new CVekPointer(original->RPData());
}
