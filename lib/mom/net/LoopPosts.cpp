#include "mom/net/LoopPosts.h"

#include <array>
#include <cstddef>

#include "mom/base/VekCodes.h"
#include "mom/net/CVekRvNet.h"

namespace kvx {

int LoopPosts::start() {
    if (!m_net.m_session) return kNoSession;
    const auto socket = static_cast<unsigned int>(m_sockets.first.get());
    m_watch.reset(m_net.m_session->newIO(socket, RVEVM_READ, this, nullptr));
    return m_watch ? kOk : kNotCreated;
}

void LoopPosts::post(std::function<void()> work) {
    {
        const std::lock_guard guard(m_mutex);
        m_waiting.push_back(std::move(work));
        if (m_waiting.size() > 1) return;  // the loop has been woken and not looked yet
    }
    constexpr std::array<std::byte, 1> kByte{};
    platform::sendSome(m_sockets.second.get(), kByte);
}

void LoopPosts::onIO(RvIO*) {
    std::array<std::byte, 8> taken{};
    platform::receiveSome(m_sockets.first.get(), taken);
    std::deque<std::function<void()>> due;
    {
        const std::lock_guard guard(m_mutex);
        due.swap(m_waiting);
    }
    // Work may end the session or the net, and this object with them.
    const NetWatch watch = m_net.watch();
    for (const auto& work : due) {
        if (!watch.queueStands()) return;
        work();
    }
}

}  // namespace kvx

int CVekRvNet::RRNAllowPosts() {
    {
        const CVekAutoMutex guard(m_requestMutex);
        if (m_posts) return kvx::kOk;
    }
    int error = 0;
    auto sockets = kvx::platform::createSocketPair(error);
    if (error != 0) return kvx::kInternalFailure;
    auto posts = std::make_shared<kvx::LoopPosts>(*this, std::move(sockets));
    const int started = posts->start();
    if (started != kvx::kOk) return started;
    const CVekAutoMutex guard(m_requestMutex);
    m_posts.swap(posts);
    return kvx::kOk;
}

int CVekRvNet::RRNPost(std::function<void()> work) {
    const CVekAutoMutex guard(m_requestMutex);
    if (!m_posts) return kvx::kNoSession;
    m_posts->post(std::move(work));
    return kvx::kOk;
}
