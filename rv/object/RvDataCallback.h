#pragma once

#include "rv/object/RvCallback.h"

class RvDatum;
class RvListener;
class RvSender;

/// Called with the messages of a listener, and at its time-out. Loop thread only.
class KVX_API RvDataCallback : public RvCallback {
  public:
    ~RvDataCallback() override;

    /// One message on `subject`, as dotted text. `replyTo` publishes on the message's reply subject
    /// and is null when there is none. `subject`, `replyTo` and `data` belong to the library and
    /// are valid during the call only: keep copies. The listener, its session and this callback may
    /// be destroyed here.
    virtual void onData(const char* subject, RvSender* replyTo, const RvDatum& data,
                        RvListener* listener) = 0;

    /// The listener's time-out has passed before any message came. Never called once one has come:
    /// who waits for the rest of several packets arms a timer of its own at each. The default does
    /// nothing.
    virtual void onTimeout(RvListener* listener);
};
