#pragma once

/// The line numbers of the error reports of `CVekRvNet`, which are part of the contract.
namespace kvx::rvNet {

inline constexpr char kFile[] = "CVekRvNet";

enum Line : int {
    DefaultConstructor = 136,
    AdoptingConstructor = 161,
    CopyingConstructor = 187,
    DefaultDomain = 240,
    Flavour = 253,
    OpenStorage = 331,
    CreateQueue = 340,
    StartAgent = 544,
    StopAgent = 574,
    SendSubject = 703,
    StoreReplyListener = 778,
    SendOffMainThread = 798,
    StoreSender = 837,
    IoTypeWrite = 877,
    IoTypeException = 891,
    IoTimedOut = 1001,
    IoNotMade = 1015,
    IoNoQueue = 1031,
    SenderTimedOut = 1106,
    SenderNotMade = 1120,
    SenderNoQueue = 1139,
    ListenerTimedOut = 1247,
    ListenerNotMade = 1263,
    ListenerNoQueue = 1282,
    TimerTimedOut = 1365,
    TimerNotMade = 1379,
    TimerNoQueue = 1395,
    RemoveIoOffMainThread = 1462,
    RemoveIoEntry = 1491,
    StoreServiceListener = 1633,
    TakeService = 1648,
    StoreErrorListener = 1686,
    QualifyNull = 1703,
    AddPostInitTimer = 1753,
    OffMainThread = 1809,
};

}  // namespace kvx::rvNet
