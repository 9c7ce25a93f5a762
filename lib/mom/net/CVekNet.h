#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "foundation/foundation.h"
#include "platform/Export.h"
#include "platform/Memory.h"

/// The root of every network object: the reply time-out and the domain that all kinds of network
/// share, and the net's one general lock.
///
/// Set the domain before the session starts and not afterwards: the getters take no lock, and
/// `RNSetDomain` frees the text that an earlier `RNGetDomain` returned.
class KVX_API CVekNet {
  public:
    /// Latency 8000 ms, no domain.
    CVekNet();

    /// A latency of 0 becomes 8000. Takes ownership of `domain`, a `malloc`ed text or null.
    CVekNet(unsigned long latency, char* domain);

    /// A latency of 0 becomes 8000. Copies `domain`, which may be null; without memory for the copy
    /// reports -220553 and leaves the domain null.
    CVekNet(unsigned long latency, const char* domain);

    CVekNet(const CVekNet&) = delete;
    CVekNet& operator=(const CVekNet&) = delete;
    virtual ~CVekNet();

    /// Called when the process must exit. The base only writes a trace, at debug level 4.
    virtual void RNSafeExit();

    /// Sets the reply time-out of every request sent through the net, in milliseconds. 0 warns on
    /// standard error and sets 8000. Any thread.
    void RNSetLatency(unsigned long latency);

    /// Takes ownership of `domain`, a `malloc`ed text, and frees the previous one. Null changes
    /// nothing and returns -220552; else 1. Any thread.
    int RNSetDomain(char* domain);

    /// The reply time-out in milliseconds, never 0.
    unsigned long RNGetLatency();

    /// The domain, or null. The net owns the text.
    char* RNGetDomain();

    // Guarded by m_lock where written; the latency is read without it.
    std::atomic<std::uint32_t> m_latency;
    kvx::Text m_domain;

    /// The net's general lock: the settings here, the registries and the session flag of derived
    /// networks. Recursive. Shared, since user code may destroy the net while a call holds it.
    std::shared_ptr<CVekThread> m_lock;
};
