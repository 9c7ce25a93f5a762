#pragma once

#include "platform/Export.h"
#include "rv/rv.h"

/// A data callback that does nothing, for requests whose answers do not matter.
class KVX_API CVekDummyCallback : public RvDataCallback {
  public:
    CVekDummyCallback();
    ~CVekDummyCallback() override;

    void onData(const char* subject, RvSender* replySender, const RvDatum& data,
                RvListener* listener) override;
};
