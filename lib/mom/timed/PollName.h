#pragma once

#include "foundation/CVekAtom.h"
#include "mom/timed/CVekTimedWork.h"

namespace kvx::timed {

/// The name of `poll` as a text, owned by the poll; "" for no poll and for a poll without a name.
inline const char* nameOf(CVekTimedWork* poll) {
    const CVekAtom* name = poll != nullptr ? poll->RTWName() : nullptr;
    const char* text = name != nullptr ? name->RAString() : nullptr;
    return text != nullptr ? text : "";
}

}  // namespace kvx::timed
