#pragma once

#include "foundation/CCallbackBase.h"

/// Implemented by the program whose signals a `CSignalHandler` dispatches.
class KVX_API CSignalHandlerInterface {
  public:
    virtual ~CSignalHandlerInterface();

    /// Called once by `CSignalHandler::manage`: register a callback for every signal of interest.
    /// `exitCallback`, when given, ends the process.
    virtual bool registerHandler(CCallbackBase* exitCallback) = 0;

    /// Called by `CSignalHandler::processSignals` for the callback of a caught signal: runs it now
    /// or later. `callback` stays valid until the process ends.
    virtual bool runHandler(CCallbackBase* callback) = 0;
};
