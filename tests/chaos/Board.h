#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>

namespace kvx::chaos {

constexpr int kPeers = 6;
constexpr int kService = kPeers;  // its door and its place on the board

/// What the driver and its processes tell each other, in memory that all of them map; all zero at
/// first. `wallShift` stands first, where `WallClock.cpp` reads it.
struct Board {
    struct Peer {
        // Written by the driver.
        std::atomic<int> incarnation;     ///< how often it was started
        std::atomic<int> flood;           ///< messages that it shall send at once
        std::atomic<std::int64_t> ahead;  ///< ms that its monotonic clock is ahead
        // Written by the peer.
        std::atomic<bool> isConnected;
        std::atomic<bool> isCutOff;                  ///< after it was connected
        std::atomic<int> losses;                     ///< of its connection
        std::array<std::atomic<int>, kPeers> heard;  ///< the last calm in which it heard that peer
        std::array<std::atomic<int>, kPeers> replied;  ///< in which that peer's reply reached it
        std::atomic<std::uint64_t> messages;           ///< that it heard
        std::atomic<std::uint64_t> missed;             ///< holes in what it heard
        std::atomic<std::uint64_t> told;               ///< lost messages that it was told of
    };

    std::atomic<std::int64_t> wallShift;  ///< seconds that every process's wall clock is off
    std::atomic<int> calm;                ///< the number of this calm, or 0 while there are faults
    std::atomic<bool> isOver;
    std::array<Peer, kPeers + 1> peers;  ///< and the service

    std::atomic<int> faults;
    std::array<char, 400> fault;  ///< the first violation that a process saw

    void fail(const std::string& what) {
        if (faults.fetch_add(1) == 0) std::snprintf(fault.data(), fault.size(), "%s", what.c_str());
    }
};

/// The board in a file, mapped as long as this object lives.
class SharedBoard {
  public:
    explicit SharedBoard(const std::string& path) {
        const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        void* memory = MAP_FAILED;
        if (file >= 0 && ftruncate(file, sizeof(Board)) == 0)
            memory = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        close(file);
        if (memory == MAP_FAILED) throw std::runtime_error("cannot map " + path);
        board_ = static_cast<Board*>(memory);
    }
    ~SharedBoard() { munmap(board_, sizeof(Board)); }
    SharedBoard(const SharedBoard&) = delete;
    SharedBoard& operator=(const SharedBoard&) = delete;

    Board* operator->() const { return board_; }
    Board& operator*() const { return *board_; }

  private:
    Board* board_;
};

}  // namespace kvx::chaos
