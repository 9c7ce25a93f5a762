#pragma once

/// Shared by the sources of `CVekEngine`: the queue's tick, and the line numbers of its error
/// reports, which are part of the contract.
namespace kvx::engine {

inline constexpr unsigned long kTick = 100;  // milliseconds between two drains of the queue

inline constexpr char kFile[] = "CVekEngine";

enum Line : int {
    CopyGroupBase = 117,
    CopyingConstructorId = 135,
    CopyingConstructorSession = 162,
    AdoptingConstructorId = 208,
    AdoptingConstructorSession = 235,
    InitGroupName = 323,
    OpenSession = 382,
    GroupName = 419,
    NewSenderSubject = 502,
    StoreSender = 557,
    SendOffMainThread = 641,
    RequestSubject = 730,
    RequestOnSender = 752,
    RequestOnNewSender = 767,
    StoreRequestSender = 776,
    RequestOffMainThread = 784,
    QueueSubject = 1101,
    QueueFrontSubject = 1146,
    HeartbeatTimer = 1204,
    FirstHeartbeatTimer = 1211,
    QueueTimer = 1246,
    SetActive = 1353,
    SetInActive = 1372,
};

}  // namespace kvx::engine
