#pragma once

#include "platform/Export.h"

/// The fixed texts of the bus's codes. Every lookup returns a constant text and never fails. Any
/// thread.

/// The client's version: "5.3.2".
KVX_API const char* rv_VersionText();

/// Session codes; "" for a code without a text.
KVX_API const char* rv_ErrorText(int code);

/// Message codes first, then the shared session codes 0 to 4; "" otherwise.
KVX_API const char* rvmsg_ErrorText(int code);

/// The shared session codes 0 to 4 first, then the message codes; "" otherwise.
KVX_API const char* rvmsg_CoreErrorText(int code);

/// Event-manager codes; "Unknown error." otherwise.
KVX_API const char* rvevm_ErrorText(int code);

/// Codes of the daemon link's queue; "An unknown error has occurred." otherwise.
KVX_API const char* ipq_ErrorText(int code);

/// Socket error numbers (10004 and above); "***Unknown***" otherwise.
KVX_API const char* rv_SocketErrorText(int code);
