#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "rv/link/ipq.h"
#include "rv/session/DaemonAddress.h"
#include "rv/session/Flavour.h"
#include "rv/session/HookLists.h"
#include "rv/session/ListenTable.h"
#include "rv/session/SessionEvents.h"
#include "rv/session/rv_Session.h"
#include "rv/wire/ControlMessage.h"

/// A session's state. Everything is for the session's thread.
struct rv_Session_ final : public kvx::link::LinkHost {
    explicit rv_Session_(rvevm_Manager runsOn) : manager(runsOn), events(this) {}

    [[nodiscard]] rvevm_Manager linkManager() const override { return manager; }
    [[nodiscard]] ipq_Properties linkProperties() const override { return properties; }

    // Constant after creation.
    rvevm_Manager_* const manager;  // null: synchronous
    bool sharesManager = false;     // counts as a user of the process's manager
    std::int64_t created = 0;       // seconds since the epoch
    unsigned long identity = 0;     // unique among this process's sessions
    std::string user;
    std::string service;
    std::string network;
    std::string daemon;
    kvx::session::DaemonAddress address;
    kvx::session::FlavourRecord flavour;
    kvx::wire::OwnedMessage noMemoryAdvisory;  // deliverable without allocating

    // The connection.
    ipq_Queue queue = nullptr;  // null while disconnected
    ipq_Properties properties{};
    rvevm_Id reconnectTimer = nullptr;
    std::uint32_t clientAddress = 0;  // as the daemon reported it, network byte order
    std::uint16_t clientPort = 0;     // likewise
    std::string name;                 // empty until the first handshake
    std::vector<std::string> formerNames;
    unsigned long fastProducerConditions = 0;

    // Listening.
    long listenCounter = 1;
    kvx::session::ListenTable listens;
    rv_Listener control = nullptr;

    // Delivering.
    std::deque<kvx::wire::OwnedMessage> pending;  // arrived while a delivery ran
    bool noMemoryPending = false;
    bool delivering = false;

    // Life. The memory goes when closing has been requested and nothing is entered.
    int entered = 0;
    bool inLoop = false;
    bool closeStarted = false;
    bool closeRequested = false;

    kvx::session::HookLists hooks;
    kvx::session::SessionEvents events;
};
