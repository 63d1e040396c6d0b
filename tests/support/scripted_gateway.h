// A Gateway played by the test itself on a loopback listener, for flows that zepgw never sends.
#ifndef ZEP_SCRIPTED_GATEWAY_H
#define ZEP_SCRIPTED_GATEWAY_H

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <future>
#include <string>
#include <vector>

#include "bytes.h"
#include "clapi_internal.h"
#include "zepclient.h"

class ScriptedGateway {
public:
    ScriptedGateway()
    {
        signal(SIGPIPE, SIG_IGN);
        listener_ = socket(AF_INET, SOCK_STREAM, 0);
        struct sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        bind(listener_, reinterpret_cast<struct sockaddr*>(&address), sizeof address);
        listen(listener_, 1);
        socklen_t length = sizeof address;
        getsockname(listener_, reinterpret_cast<struct sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
    }
    ~ScriptedGateway()
    {
        hangUp();
        close(listener_);
    }
    ScriptedGateway(const ScriptedGateway&) = delete;
    ScriptedGateway& operator=(const ScriptedGateway&) = delete;

    // Opens a token on this Gateway, accepting the connection and answering the handshake; nullptr on failure.
    GatewayToken* open()
    {
        GatewayToken* tok = nullptr;
        auto opening = std::async(std::launch::async, [&] {
            return ZEP_openRemoteGatewayConnection("127.0.0.1", port_, &tok, 10);
        });
        struct pollfd ready = {listener_, POLLIN, 0};
        if (poll(&ready, 1, 10000) == 1) peer_ = accept(listener_, nullptr, nullptr);
        const struct timeval tenSeconds = {10, 0};
        setsockopt(peer_, SOL_SOCKET, SO_RCVTIMEO, &tenSeconds, sizeof tenSeconds);
        int32_t flowType = 0;
        if (peer_ >= 0 && nextRequest(&flowType) == MSGID_HANDSHAKE && flowType == FLOW_HANDSHAKE)
            send(header(FLOW_HANDSHAKE, MSGID_HANDSHAKE, "BASE", 0, 0));
        if (opening.wait_for(std::chrono::seconds(10)) != std::future_status::ready || opening.get() != 0) return nullptr;
        return tok;
    }

    // Reads the next whole message from the library; its message id, or 0 when none came within 10 s.
    int32_t nextRequest(int32_t* flowType = nullptr)
    {
        Bytes message;
        if (!readMessage(peer_, message)) return 0;
        if (flowType != nullptr) *flowType = wordAt(message, 8);
        return wordAt(message, 12);
    }

    static std::string be32(int32_t v) { return Wire().i32(v).str(); }

    // A message header as the Gateway writes it, announcing `payload` bytes.
    static std::string header(int32_t flowType, int32_t messageId, const std::string& type, int32_t payload,
                              int32_t rc)
    {
        return Wire().header(flowType, messageId, type, payload, rc).str();
    }

    // `call` on a thread of its own, answered with the message `answer` builds for its request's id; its result.
    template <typename Call, typename Answer>
    int answered(Call call, Answer answer)
    {
        auto result = std::async(std::launch::async, call);
        send(answer(nextRequest()));
        EXPECT_EQ(std::future_status::ready, result.wait_for(std::chrono::seconds(10)));
        return result.get();
    }

    void send(const std::string& bytes) { ASSERT_EQ(static_cast<ssize_t>(bytes.size()), ::send(peer_, bytes.data(), bytes.size(), 0)); }

    // The Gateway goes away without a close flow.
    void hangUp()
    {
        if (peer_ >= 0) close(peer_);
        peer_ = -1;
    }

private:
    int listener_ = -1, peer_ = -1, port_ = 0;
};

#endif
