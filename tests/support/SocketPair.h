#pragma once

#include <gtest/gtest.h>

#include <span>
#include <string_view>

#include "platform/Socket.h"

namespace kvx::test {

/// Two ends of one TCP connection over the loopback.
struct SocketPair {
    platform::Socket near;
    platform::Socket far;

    SocketPair() {
        int error = 0;
        const platform::Socket listener =
            platform::listenTcp({platform::kLoopbackAddress, 0}, error);
        EXPECT_EQ(error, 0);
        near = platform::createTcpSocket(error);
        const auto endpoint = platform::localEndpoint(listener.get());
        EXPECT_EQ(platform::connectSocket(near.get(), endpoint.value_or(platform::Endpoint{})), 0);
        far = platform::acceptTcp(listener.get(), error);
        EXPECT_EQ(error, 0);
    }

    /// Sends a text from the far end and returns when the near end can read it.
    void farSends(std::string_view text) const {
        const auto bytes = std::as_bytes(std::span(text));
        EXPECT_EQ(platform::sendSome(far.get(), bytes).bytes, bytes.size());
        platform::waitSocket(near.get(), platform::kReadable, platform::kForever);
    }
};

}  // namespace kvx::test
