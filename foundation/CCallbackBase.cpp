#include "foundation/CCallbackBase.h"

CCallbackBase::~CCallbackBase() = default;
