#include "foundation/CSignalHandlerInterface.h"

CSignalHandlerInterface::~CSignalHandlerInterface() = default;
