#pragma once

#include "platform/Export.h"
#include "rv/rv.h"

/// Turns the bus's warnings and errors into error reports: -220380 for subjects that begin with
/// "_RV.WARN.", -220379 for "_RV.ERROR."; all other subjects are ignored.
class KVX_API CVekRvErrorClb : public RvDataCallback {
  public:
    CVekRvErrorClb();
    CVekRvErrorClb(const CVekRvErrorClb& other);
    CVekRvErrorClb& operator=(const CVekRvErrorClb& other);
    ~CVekRvErrorClb() override;

    /// Reports the advisory with the text of an empty, string or scalar datum; does not report one
    /// whose datum is a message. Loop thread only.
    void onData(const char* subject, RvSender* replyTo, const RvDatum& datum,
                RvListener* listener) override;

    /// Reports `subject` and, when it is not null, `message`. A null subject is ignored.
    void RREPrintError(const char* subject, char* message) const;
};
