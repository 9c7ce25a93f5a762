#pragma once

#include "mom/net/CVekRvNet.h"
#include "platform/Export.h"

/// The network object of a tool: session, registries and main loop, without an engine's queue,
/// group and heartbeats.
class KVX_API CVekClient : public CVekRvNet {
  public:
    /// `latency` in milliseconds, 0 for the default. The first form takes ownership of `domain`,
    /// a `malloc`ed text, the second copies it.
    CVekClient(unsigned long latency, char* domain);
    CVekClient(unsigned long latency, const char* domain);

    /// Empty texts of `address` are taken from the configuration file.
    CVekClient(unsigned long latency, const char* domain, const kvx::DaemonAddress& address);
    ~CVekClient() override;

    /// Calls the function set by `RRNSetPostInitFns`.
    void RRNPostInitFns() override;
};
