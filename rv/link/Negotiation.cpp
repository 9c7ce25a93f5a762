// Makes a queue from a connected socket by exchanging 64-byte parameter blocks, within five seconds
// in all. rv/wire, which the daemon shares, decides the answers; this file does the I/O. In version
// 4 the daemon sends the first block, and blocks alternate until one side accepts or refuses; in
// version 3 the client sends one block and compares the daemon's answer with it. On any failure the
// socket is closed.

#include <utility>

#include "rv/link/LinkIo.h"
#include "rv/link/ipq.h"
#include "rv/wire/Negotiation.h"

namespace {

using kvx::link::Deadline;
using kvx::wire::ParameterBlock;
using Action = kvx::wire::NegotiationStep::Action;

bool sendBlock(kvx::platform::SocketHandle socket, const ParameterBlock& block,
               const Deadline& deadline) {
    return kvx::link::writeExactly(socket, kvx::wire::encode(block), deadline);
}

bool readBlock(kvx::platform::SocketHandle socket, ParameterBlock& block,
               const Deadline& deadline) {
    kvx::wire::ParameterBytes bytes{};
    if (!kvx::link::readExactly(socket, bytes, deadline)) return false;
    block = kvx::wire::decodeParameters(bytes);
    return true;
}

int makeQueue(ipq_Queue* queue, kvx::link::LinkHost& session, const ParameterBlock& block,
              kvx::platform::Socket socket) {
    const int code = ipq_Create(queue, session, block, std::move(socket));
    return code == IPQ_OK ? IPQ_SETUP_OK : IPQ_SETUP_NO_QUEUE;
}

// Exchanges blocks until one is accepted.
bool settle(kvx::platform::SocketHandle socket, ParameterBlock& accepted) {
    const Deadline deadline = Deadline::in(kvx::wire::kClientHandshakeMs);
    for (ParameterBlock received; !deadline.passed() && readBlock(socket, received, deadline);) {
        const kvx::wire::NegotiationStep step = kvx::wire::clientStep(received);
        switch (step.action) {
            case Action::Accepted:
                accepted = step.block;
                return true;
            case Action::Send:
                if (!sendBlock(socket, step.block, deadline)) return false;
                break;
            case Action::Refuse:
                static_cast<void>(sendBlock(socket, step.block, deadline));
                return false;
            case Action::Failed:
                return false;
            case Action::Ignore:
                break;
        }
    }
    return false;
}

}  // namespace

int ipq_NegotiateV4(ipq_Queue* queue, kvx::link::LinkHost& session, kvx::platform::Socket socket) {
    ParameterBlock accepted;
    if (!settle(socket.get(), accepted)) return IPQ_SETUP_EXCHANGE_FAILED;
    return makeQueue(queue, session, accepted, std::move(socket));
}

int ipq_CreateV3(ipq_Queue* queue, kvx::link::LinkHost& session, kvx::platform::Socket socket) {
    const Deadline deadline = Deadline::in(kvx::wire::kClientHandshakeMs);
    const ParameterBlock proposed = kvx::wire::clientBlockV3();
    ParameterBlock received;
    if (!sendBlock(socket.get(), proposed, deadline) ||
        !readBlock(socket.get(), received, deadline))
        return IPQ_SETUP_EXCHANGE_FAILED;
    if (!kvx::wire::agreesV3(proposed, received)) return IPQ_SETUP_DISAGREEMENT;
    return makeQueue(queue, session, received, std::move(socket));
}
