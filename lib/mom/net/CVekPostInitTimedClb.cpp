#include "mom/net/CVekPostInitTimedClb.h"

#include "mom/base/VekTrace.h"
#include "mom/net/CVekRvNet.h"

namespace {
namespace postInitLine {
enum Line : int { PrivateCopy = 62 };
}
}  // namespace

CVekPostInitTimedClb::CVekPostInitTimedClb() = default;

CVekPostInitTimedClb::CVekPostInitTimedClb(const CVekPostInitTimedClb& other)
    : RvTimerCallback(other) {
    kvx::warn("ERROR: Using a private constructor.\n");
    kvx::report(kvx::kInvalidArgument, "CVekPostInitTimedClb", postInitLine::PrivateCopy);
}

CVekPostInitTimedClb& CVekPostInitTimedClb::operator=(const CVekPostInitTimedClb&) = default;

CVekPostInitTimedClb::~CVekPostInitTimedClb() = default;

void CVekPostInitTimedClb::onTimer(RvTimer* timer) {
    static_cast<CVekRvNet*>(timer->closure())->RRNPostInitFns();
    delete this;
}
