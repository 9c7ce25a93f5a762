#pragma once

#include "platform/Export.h"

/// Base of callable objects.
class KVX_API CCallbackBase {
  public:
    /// Invokes the callback.
    virtual void operator()() = 0;
    virtual ~CCallbackBase();
};
