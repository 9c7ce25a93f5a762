#pragma once

namespace kvx {

/// The catalogue of codes, those of the middleware included, whose constants are in
/// `mom/base/VekCodes.h`: one row for each, in falling order.
struct CatalogueEntry {
    int code;
    const char* name;  ///< of the constant
    const char* text;
};

inline constexpr CatalogueEntry kCatalogue[] = {
    {-220370, "kNotCreated", "The bus object could not be created"},
    {-220371, "kNoAnswer", "The main thread did not answer in time"},
    {-220379, "kBusError", "Error advisory of the bus"},
    {-220380, "kBusWarning", "Warning advisory of the bus"},
    {-220382, "kUnknownRequest", "Unsupported type of request"},
    {-220383, "kIllegalFrequency", "Illegal polling frequency"},
    {-220402, "kMissingArgument", "Missing argument"},
    {-220417, "kInvalidRequest", "Invalid request"},
    {-220425, "kOffMainThread", "Not called on the main thread"},
    {-220432, "kUnknownState", "Unexpected state of a worker or its response"},
    {-220439, "kNotCompleted", "The operation could not be completed"},
    {-220440, "kInternalFailure", "Internal failure"},
    {-220462, "kIoTypeChosen", "The type of I/O event is already chosen"},
    {-220463, "kNoHostName", "The name of this host is not available"},
    {-220494, "kBadPacket", "Malformed message or packet"},
    {-220532, "kWrongAtomType", "Wrong type of atom"},
    {-220536, "kNotRegistered", "A signal could not be registered"},
    {-220542, "kNoListener", "A listener could not be made"},
    {-220544, "kNoSession", "No bus session"},
    {-220545, "kNotSent", "Nothing could be sent"},
    {-220547, "kNotFound", "Not found"},
    {-220549, "kFileUnusable", "The file cannot be used"},
    {-220551, "kParserGaveUp", "The text cannot be parsed"},
    {-220552, "kInvalidArgument", "Null or invalid argument"},
    {-220553, "kNoMemory", "Out of memory"},
    {-220566, "kKeyPresent", "The key is already there"},
};

}  // namespace kvx
