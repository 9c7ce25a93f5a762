#pragma once

#include "rv/object/RvCallback.h"

class RvDatum;

/// Sees every datum that a sender publishes or a listener is about to deliver. Loop thread only.
///
/// The user owns its filters. A destroyed filter is skipped.
class KVX_API RvDatumFilter : public RvCallback {
  public:
    ~RvDatumFilter() override;
    /// `object` is the `RvSender` of an outbound datum, the `RvListener` of an inbound one. Returns
    /// `datum` itself, a new heap object (which the library deletes after use), or null to refuse.
    /// An outbound `datum` belongs to the sending caller: leave it unchanged.
    virtual RvDatum* filter(RvDatum* datum, void* object) = 0;
};
