#pragma once

#include <array>
#include <vector>

#include "platform/Poll.h"
#include "rv/event/IdTable.h"
#include "rv/event/rvevm.h"

namespace kvx::event {

/// The sockets that an event manager watches, and the list of those found ready by the last wait.
/// Loop thread only.
class IoTable {
  public:
    /// A copy of a registration, to be called.
    struct Ready {
        rvevm_Id id;
        rvevm_Callback callback;
        void* closure;
    };

    /// `wakeUp` ends waits and must outlive this object.
    explicit IoTable(platform::WakeUp& wakeUp) : poll_(&wakeUp) {}

    /// The operations of the event manager, with its codes.
    int add(rvevm_Id* id, unsigned int socket, rvevm_IoEventType condition, rvevm_Callback callback,
            void* closure);
    int remove(rvevm_Id id) noexcept;
    /// Puts the entry into every ready list, whatever the state of its socket, until `nextReady`
    /// returns it; waits do not block meanwhile. The system is then asked about all others only
    /// once in `kStepsUnasked` waits, or in a millisecond, so that who makes itself ready again and
    /// again, as a link with much to deliver, does not pay for it each time.
    int makeReady(rvevm_Id id) noexcept;

    [[nodiscard]] bool empty() const noexcept { return entries_.size() == 0; }

    /// Waits for at most `timeout` and fills the ready list.
    void wait(platform::Milliseconds timeout);
    /// Fills the ready list from a wait that ended with this socket error number (0 for none):
    /// readable entries first, then writable ones, then exceptions, each by ascending socket.
    void collectReady(int waitError);
    /// The next entry of the ready list that is still registered; false at its end.
    [[nodiscard]] bool nextReady(Ready& ready) noexcept;
    void clearReady() noexcept;

  private:
    static constexpr unsigned kStepsUnasked = 8;

    struct Entry {
        platform::SocketHandle socket;
        rvevm_IoEventType condition;
        rvevm_Callback callback;
        void* closure;
        bool forced;  // in the ready list whatever poll finds
    };
    struct Watched {
        platform::SocketHandle socket;
        rvevm_Id id;
    };
    using List = std::vector<Watched>;  // sorted by socket

    List& listOf(rvevm_IoEventType condition) noexcept;
    [[nodiscard]] bool mustAsk() noexcept;
    static List::iterator placeOf(List& list, platform::SocketHandle socket) noexcept;
    [[nodiscard]] int insert(const Entry& entry, rvevm_Id* id);
    void collectAll(bool useReadiness, bool allReadable);
    void collect(List& list, bool useReadiness, bool allReady);

    IdTable<Entry> entries_;
    std::array<List, 3> lists_;  // readable, writable, exception
    platform::PollSet poll_;
    std::vector<rvevm_Id> ready_;  // has room for every entry
    std::size_t nextReady_ = 0;
    std::size_t forcedCount_ = 0;
    unsigned unasked_ = 0;                 // waits since the last that asked the system
    platform::Milliseconds askedAt_ = -1;  // when that was
};

}  // namespace kvx::event
