#include "foundation/CSignalHandlerInterface.h"

#include "foundation/CSignalHandler.h"

CSignalHandlerInterface::~CSignalHandlerInterface() {
    CSignalHandler::forget(this);
}
