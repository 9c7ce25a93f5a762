// The second implementation of those functions of libuv that the daemon uses: one loop, over the
// virtual world. A turn handles one event, chosen at random of those that are due.
//
// The record of a handle is found by the handle's first reserved word, as libuv keeps its own state
// in the handle.

#include <arpa/inet.h>
#include <uv.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tests/sim/World.h"

namespace kvx::sim {

namespace {

struct Record {
    uv_handle_t* handle = nullptr;
    bool active = false;
    bool closing = false;
    uv_close_cb closed = nullptr;
    // tcp
    SocketHandle socket = platform::kNoSocket;
    uv_connection_cb connected = nullptr;
    uv_alloc_cb allocate = nullptr;
    uv_read_cb read = nullptr;
    uv_write_t* write = nullptr;
    uv_write_cb written = nullptr;
    uv_buf_t left{};
    uv_shutdown_t* shutdown = nullptr;
    uv_shutdown_cb wasShutDown = nullptr;
    // timer
    Milliseconds due = 0;
    Milliseconds repeat = 0;
    uv_timer_cb expired = nullptr;
    uv_poll_cb signalled = nullptr;
    // idle and prepare
    uv_idle_cb idle = nullptr;  // the loop does not wait
    uv_prepare_cb prepare = nullptr;
};

std::vector<std::unique_ptr<Record>> records;
bool killed = false;
long readFailure = -1;
Account* daemonAccount = nullptr;

template <class Handle>
Record& recordOf(Handle* handle) {
    return *static_cast<Record*>(handle->u.reserved[0]);
}

template <class Handle>
int begin(uv_loop_t* loop, Handle* handle) {
    const Harness harness;
    records.push_back(std::make_unique<Record>());
    records.back()->handle = reinterpret_cast<uv_handle_t*>(handle);
    handle->loop = loop;
    handle->u.reserved[0] = records.back().get();
    return 0;
}

int uvError(int socketError) {
    return socketError == platform::socket_error::kWouldBlock ? UV_EAGAIN : UV_ECONNRESET;
}

uv_stream_t* streamOf(Record& record) {
    return reinterpret_cast<uv_stream_t*>(record.handle);
}

// Events; the daemon pays for what they allocate.

void readOnce(Record& record) {
    uv_buf_t buffer{};
    record.allocate(record.handle, 65'536, &buffer);
    const IoResult got = world->network.receive(record.socket, buffer.base, buffer.len);
    ssize_t result = static_cast<ssize_t>(got.bytes);
    if (got.error != 0) result = uvError(got.error);
    if (got.error == 0 && got.bytes == 0) result = UV_EOF;
    if (result == UV_EAGAIN) return;
    if (result < 0) {
        record.active = false;
        world->ledger.left(world->network.linkOf(record.socket)->number);
    }
    record.read(streamOf(record), result, &buffer);
}

void writeOn(Record& record) {
    const IoResult sent = world->network.send(record.socket, record.left.base, record.left.len);
    if (sent.error == platform::socket_error::kWouldBlock) return;
    record.left.base += sent.bytes;
    record.left.len -= sent.bytes;
    if (sent.error == 0 && record.left.len > 0) return;
    record.written(std::exchange(record.write, nullptr), sent.error == 0 ? 0 : uvError(sent.error));
}

void shutDown(Record& record) {
    world->network.endSending(record.socket);
    record.wasShutDown(std::exchange(record.shutdown, nullptr), 0);
}

void finishClosing(Record& record) {
    if (record.write != nullptr) record.written(std::exchange(record.write, nullptr), UV_ECANCELED);
    const auto closed = record.closed;
    uv_handle_t* handle = record.handle;
    handle->u.reserved[0] = nullptr;
    {
        const Harness harness;
        std::erase_if(records, [&](const auto& r) { return r.get() == &record; });
    }
    if (closed != nullptr) closed(handle);
}

void expire(Record& record) {
    record.due = world->now + record.repeat;
    record.active = record.repeat != 0;
    record.expired(reinterpret_cast<uv_timer_t*>(record.handle));
}

void deliverSignal(Record& record) {
    record.signalled(reinterpret_cast<uv_poll_t*>(record.handle), 0, UV_READABLE);
}

using Event = void (*)(Record&);

// The event of a record that is due; null for none.
Event dueEvent(const Record& record) {
    if (record.closing) return finishClosing;
    if (record.signalled != nullptr && record.active && world->raised != 0) return deliverSignal;
    if (record.expired != nullptr && record.active && record.due <= world->now) return expire;
    if (record.idle != nullptr)
        return [](Record& r) { r.idle(reinterpret_cast<uv_idle_t*>(r.handle)); };
    if (record.connected != nullptr && world->network.hasBacklog())
        return [](Record& r) { r.connected(streamOf(r), 0); };
    if (record.socket == platform::kNoSocket) return nullptr;
    if (record.shutdown != nullptr && record.write == nullptr) return shutDown;
    const bool canRead = record.active && world->network.readable(record.socket);
    if (record.write != nullptr && world->network.writable(record.socket) &&
        !(canRead && world->random.oneIn(2)))
        return writeOn;
    return canRead ? readOnce : nullptr;
}

bool anyDue() {
    return std::ranges::any_of(records, [](const auto& r) { return dueEvent(*r) != nullptr; });
}

bool alive() {
    return std::ranges::any_of(records, [](const auto& r) { return r->active || r->closing; });
}

Milliseconds nextTimer() {
    Milliseconds wait = platform::kForever;
    for (const auto& r : records)
        if (r->expired != nullptr && r->active && (wait < 0 || r->due - world->now < wait))
            wait = std::max<Milliseconds>(0, r->due - world->now);
    return wait;
}

void turn() {
    std::vector<Record*> due;
    for (const auto& r : records)
        if (dueEvent(*r) != nullptr) due.push_back(r.get());
    if (due.empty()) return;
    Record& chosen = *world->random.among(due);
    const Event event = dueEvent(chosen);
    if (event == nullptr) return;
    if (event == readOnce && readFailure >= 0) {
        daemonAccount->newsBeforeFailure = std::exchange(readFailure, -1);
        world->ledger.noMemory = true;  // without memory for a message, it is the one dropped
    }
    {
        const Charge daemon(daemonAccount);
        event(chosen);
    }
    daemonAccount->newsBeforeFailure = -1;
}

// Before each wait. Who is idle has work left over.
void prepare() {
    for (const auto& r : records) {
        if (r->prepare == nullptr) continue;
        const Charge daemon(daemonAccount);
        r->prepare(reinterpret_cast<uv_prepare_t*>(r->handle));
    }
    const auto worksOn = [](const auto& r) { return r->idle != nullptr; };
    world->network.daemonIsBehind = std::ranges::any_of(records, worksOn);
    if (world->network.daemonIsBehind) return;
    world->ledger.daemonHasCaughtUp();
    for (const auto& r : records) {
        if (r->socket == platform::kNoSocket || r->shutdown != nullptr) continue;
        const Link& link = *world->network.linkOf(r->socket);
        if (world->ledger.isClosed(link.number) && !link.down.ended && !r->closing)
            world->fail("a closed connection is not ended: " + std::to_string(link.number));
    }
}

}  // namespace

void killDaemonLoop() {
    killed = true;
}

void failDaemonRead(long n) {
    readFailure = n;
}

}  // namespace kvx::sim

using kvx::sim::Harness;
using kvx::sim::recordOf;
using kvx::sim::world;

int uv_loop_init(uv_loop_t* /*loop*/) {
    kvx::sim::killed = false;
    return 0;
}
int uv_loop_close(uv_loop_t* /*loop*/) {
    return kvx::sim::records.empty() ? 0 : UV_EBUSY;
}
std::uint64_t uv_now(const uv_loop_t* /*loop*/) {
    return static_cast<std::uint64_t>(world->now);
}
std::uint64_t uv_hrtime() {
    return world->processorTime();
}

int uv_run(uv_loop_t* /*loop*/, uv_run_mode /*mode*/) {
    const Harness harness;
    kvx::sim::daemonAccount = harness.before();
    while (kvx::sim::alive()) {
        kvx::sim::prepare();
        world->wait([] { return kvx::sim::killed || kvx::sim::anyDue(); }, kvx::sim::nextTimer());
        if (std::exchange(kvx::sim::killed, false)) return 1;
        kvx::sim::turn();
    }
    return 0;
}

int uv_tcp_init(uv_loop_t* loop, uv_tcp_t* handle) {
    return kvx::sim::begin(loop, handle);
}
int uv_pipe_init(uv_loop_t* loop, uv_pipe_t* handle, int /*ipc*/) {
    return kvx::sim::begin(loop, handle);
}
// It watches for signals, and for nothing else.
int uv_poll_init(uv_loop_t* loop, uv_poll_t* handle, int /*descriptor*/) {
    return kvx::sim::begin(loop, handle);
}
int uv_poll_start(uv_poll_t* handle, int /*events*/, uv_poll_cb ready) {
    recordOf(handle).signalled = ready;
    recordOf(handle).active = true;
    return 0;
}
int uv_tcp_open(uv_tcp_t* /*handle*/, uv_os_sock_t /*socket*/) {
    return UV_ENOSYS;
}
int uv_pipe_open(uv_pipe_t* /*handle*/, uv_file /*descriptor*/) {
    return UV_ENOSYS;
}
int uv_tcp_bind(uv_tcp_t* /*handle*/, const sockaddr* /*address*/, unsigned /*flags*/) {
    return 0;
}
int uv_tcp_nodelay(uv_tcp_t* /*handle*/, int /*on*/) {
    return 0;
}
int uv_listen(uv_stream_t* stream, int /*backlog*/, uv_connection_cb connected) {
    const Harness harness;
    recordOf(stream).connected = connected;
    recordOf(stream).active = true;
    world->network.listen(true);
    return 0;
}
int uv_accept(uv_stream_t* /*listener*/, uv_stream_t* client) {
    const Harness harness;
    if (!world->network.hasBacklog()) return UV_EAGAIN;
    recordOf(client).socket = world->network.accept();
    return 0;
}

int uv_fileno(const uv_handle_t* /*handle*/, uv_os_fd_t* descriptor) {
    *descriptor = 0;
    return 0;
}

int uv_tcp_getpeername(const uv_tcp_t* handle, sockaddr* name, int* /*length*/) {
    const auto from = world->network.linkOf(recordOf(handle).socket)->from;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(from.port);
    address.sin_addr.s_addr = htonl(from.address);
    std::memcpy(name, &address, sizeof address);
    return 0;
}
int uv_tcp_getsockname(const uv_tcp_t* /*handle*/, sockaddr* name, int* /*length*/) {
    const sockaddr_in address{};
    std::memcpy(name, &address, sizeof address);
    return 0;
}

int uv_read_start(uv_stream_t* stream, uv_alloc_cb allocate, uv_read_cb read) {
    recordOf(stream).allocate = allocate;
    recordOf(stream).read = read;
    recordOf(stream).active = true;
    return 0;
}
int uv_read_stop(uv_stream_t* stream) {
    recordOf(stream).active = false;
    return 0;
}

int uv_try_write(uv_stream_t* stream, const uv_buf_t* buffers, unsigned count) {
    const Harness harness;
    if (recordOf(stream).write != nullptr) return UV_EAGAIN;
    // In one piece: which buffers happen to be adjacent must not matter.
    std::string all;
    for (unsigned i = 0; i < count; ++i) all.append(buffers[i].base, buffers[i].len);
    const auto sent = world->network.send(recordOf(stream).socket, all.data(), all.size());
    return sent.error != 0 ? kvx::sim::uvError(sent.error) : static_cast<int>(sent.bytes);
}

int uv_write(uv_write_t* request, uv_stream_t* stream, const uv_buf_t* buffers, unsigned /*count*/,
             uv_write_cb written) {
    auto& record = recordOf(stream);
    record.write = request;
    record.left = buffers[0];
    record.written = written;
    return 0;
}

std::size_t uv_stream_get_write_queue_size(const uv_stream_t* stream) {
    return recordOf(stream).write == nullptr ? 0 : recordOf(stream).left.len;
}

int uv_shutdown(uv_shutdown_t* request, uv_stream_t* stream, uv_shutdown_cb done) {
    recordOf(stream).shutdown = request;
    recordOf(stream).wasShutDown = done;
    return 0;
}

void uv_close(uv_handle_t* handle, uv_close_cb closed) {
    const Harness harness;
    auto& record = recordOf(handle);
    record.closing = true;
    record.closed = closed;
    record.idle = nullptr;
    record.prepare = nullptr;
    if (record.connected != nullptr) world->network.listen(false);
    if (record.socket != kvx::platform::kNoSocket)
        world->network.close(std::exchange(record.socket, kvx::platform::kNoSocket));
}
int uv_is_closing(const uv_handle_t* handle) {
    return handle->u.reserved[0] == nullptr || recordOf(handle).closing ? 1 : 0;
}

int uv_timer_init(uv_loop_t* loop, uv_timer_t* handle) {
    return kvx::sim::begin(loop, handle);
}
int uv_timer_start(uv_timer_t* handle, uv_timer_cb expired, std::uint64_t timeout,
                   std::uint64_t repeat) {
    auto& record = recordOf(handle);
    record.expired = expired;
    record.due = world->now + static_cast<kvx::platform::Milliseconds>(timeout);
    record.repeat = static_cast<kvx::platform::Milliseconds>(repeat);
    record.active = true;
    return 0;
}
int uv_idle_init(uv_loop_t* loop, uv_idle_t* handle) {
    return kvx::sim::begin(loop, handle);
}
int uv_idle_start(uv_idle_t* handle, uv_idle_cb idle) {
    recordOf(handle).idle = idle;
    recordOf(handle).active = true;
    return 0;
}
int uv_idle_stop(uv_idle_t* handle) {
    recordOf(handle).idle = nullptr;
    recordOf(handle).active = false;
    return 0;
}
int uv_prepare_init(uv_loop_t* loop, uv_prepare_t* handle) {
    return kvx::sim::begin(loop, handle);
}
int uv_prepare_start(uv_prepare_t* handle, uv_prepare_cb prepare) {
    recordOf(handle).prepare = prepare;
    recordOf(handle).active = true;
    return 0;
}

const char* uv_strerror(int /*error*/) {
    return "network error";
}
uv_buf_t uv_buf_init(char* base, unsigned length) {
    uv_buf_t buffer{};
    buffer.base = base;
    buffer.len = length;
    return buffer;
}
