#pragma once

#include "platform/Export.h"
#include "rv/rv.h"

class CVekSnoop;

/// One update to apply: a datum and its snoop. Assignment shares the datum.
class KVX_API CVekUpdWork {
  public:
    /// Takes ownership of `datum`; stores `snooper`.
    CVekUpdWork(RvDatum* datum, CVekSnoop* snooper);
    CVekUpdWork(const CVekUpdWork&) = delete;
    CVekUpdWork& operator=(const CVekUpdWork&) = default;
    virtual ~CVekUpdWork();

    RvDatum* RUWDatum();
    CVekSnoop* RUWSnooper();

    RvDatum* m_updDatum;   // owned
    CVekSnoop* m_snooper;  // not owned
};
