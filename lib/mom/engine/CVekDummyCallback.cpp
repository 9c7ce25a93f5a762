#include "mom/engine/CVekDummyCallback.h"

CVekDummyCallback::CVekDummyCallback() = default;

CVekDummyCallback::~CVekDummyCallback() = default;

void CVekDummyCallback::onData(const char*, RvSender*, const RvDatum&, RvListener*) {}
