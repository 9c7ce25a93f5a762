#pragma once

namespace kvx::ft {

/// The codes of rvft.h.
enum FtCode : int {
    kOk = 0,
    kBadArgument = 1,
    kBadSession = 2,
    kNoMemory = 3,
    kAlreadyMember = 4,
    kNoMember = 5,
    kCannotAnnounce = 6,
};

/// Their names and fixed texts.
struct FtCodeText {
    FtCode code;
    const char* name;
    const char* text;
};
inline constexpr FtCodeText kFtTexts[] = {
    {kOk, "kOk", "No error"},
    {kBadArgument, "kBadArgument", "Invalid fault-tolerance argument"},
    {kBadSession, "kBadSession", "Invalid session"},
    {kNoMemory, "kNoMemory", "Out of memory"},
    {kAlreadyMember, "kAlreadyMember", "Already a member of this group"},
    {kNoMember, "kNoMember", "Not a member"},
    {kCannotAnnounce, "kCannotAnnounce", "The group cannot be announced"},
};

}  // namespace kvx::ft
