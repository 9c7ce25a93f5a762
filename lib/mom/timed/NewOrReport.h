#pragma once

#include <new>
#include <utility>

#include "mom/net/VekReport.h"

namespace kvx::timed {

/// A new `Object`; null, and a report of -220553 with `text`, when there is no memory.
template <class Object, class... Arguments>
Object* newOrReport(const char* file, const char* text, Arguments&&... arguments) {
    auto* object = new (std::nothrow) Object(std::forward<Arguments>(arguments)...);
    if (object == nullptr) report(kNoMemory, file, 0, text);
    return object;
}

}  // namespace kvx::timed
