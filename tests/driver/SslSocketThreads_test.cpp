// The SSL request socket of the Linux library, where its server thread,
// clients and the service's threads meet: each answer (norvi_ssl_response to
// norvi_get_ssl_request) reaches its own client with its own requestContext;
// bad submissions cost their client only.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "driver/linux/SslSocketClient.h"
#include "host/NorviLoader.h"
#include "host/norvi.h"
#include "tests/TempFolder.h"

namespace {

// This program drives the Linux library, not the stand-in.
const int kLibraryChosen = setenv("NORVI_LIBRARY", VEXIL_BUILD_DIR "/libnorvi.so", 1);

using NORVI::CSslSocketClient;
using Bytes = std::vector<uint8_t>;
using Result = CSslSocketClient::ReceiveResult;

// A request header whose requestContext is filled with the byte mark.
Bytes Header(uint8_t mark, uint32_t preMasterLen) {
    Bytes header(80, 0);
    memcpy(header.data(), &preMasterLen, 4);
    memset(header.data() + 8, mark, 56);
    header[64] = 1;
    return header;
}

// Answers one request as the key service would: the secret is the data
// reversed. Returns the norvi_get_ssl_request code.
int Serve(norvi_handle_t handle) {
    uint8_t header[80];
    const void* data = nullptr;
    uint32_t length = 0;
    const int code = norvi_get_ssl_request(handle, header, &data, &length);
    if (code != 0) {
        return code;
    }
    Bytes response(72 + length, 0);
    memcpy(response.data(), &length, 4);
    memcpy(response.data() + 8, header + 8, 56);
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    std::reverse_copy(bytes, bytes + length, response.begin() + 64);
    return norvi_ssl_response(handle, response.data(), response.size());
}

class SslSocketTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, kLibraryChosen);
        m_Listen =
            reinterpret_cast<int (*)(const char*)>(NorvCore::NorviSymbol("norvi_listen_ssl"));
        m_Counters =
            reinterpret_cast<int (*)(uint64_t*)>(NorvCore::NorviSymbol("norvi_ssl_counters"));
        ASSERT_TRUE(m_Listen && m_Counters) << "build/libnorvi.so must be the Linux library";
        m_Path = m_Folder.Path() + "/ssl.sock";
        ASSERT_EQ(0, m_Listen(m_Path.c_str()));
        m_Handle = norvi_open();
        ASSERT_NE(nullptr, m_Handle);
        m_Event = eventfd(0, EFD_CLOEXEC);
        ASSERT_EQ(0, norvi_register_event(m_Handle, 1, m_Event));
    }
    void TearDown() override {
        if (m_Handle != nullptr) {
            norvi_close(m_Handle);
        }
        close(m_Event);
        if (m_Listen != nullptr) {
            m_Listen(nullptr);
        }
    }

    std::vector<uint64_t> Counters() {
        std::vector<uint64_t> counts(6);
        m_Counters(counts.data());
        return counts;  // clients, requests, answered, orphaned, refused, dropped
    }

    Bytes Expect(CSslSocketClient& client, const char* what) {
        Bytes response;
        std::string error;
        EXPECT_EQ(Result::Response, client.Receive(response, 5000, error)) << what << error;
        return response;
    }

    TempFolder m_Folder;
    std::string m_Path;
    int (*m_Listen)(const char*) = nullptr;
    int (*m_Counters)(uint64_t*) = nullptr;
    norvi_handle_t m_Handle = nullptr;
    int m_Event = -1;
};

TEST_F(SslSocketTest, EachClientGetsItsOwnAnswerAndOneThatLeavesLosesOnlyItsOwn) {
    CSslSocketClient first, second;
    std::string error;
    ASSERT_TRUE(first.Connect(m_Path, error)) << error;
    ASSERT_TRUE(second.Connect(m_Path, error)) << error;
    {
        CSslSocketClient leaving;
        ASSERT_TRUE(leaving.Connect(m_Path, error));
        ASSERT_TRUE(leaving.Submit(Header(0x11, 0).data(), nullptr, 0, error));
        // The request is queued before the client goes.
        for (int tries = 0; tries < 100 && Counters()[1] == 0; ++tries) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    EXPECT_EQ(0, Serve(m_Handle));  // its answer goes nowhere, and that is no error
    const Bytes one = {1, 2, 3}, two(65456, 7);
    ASSERT_TRUE(first.Submit(Header(0xaa, 3).data(), one.data(), 3, error)) << error;
    ASSERT_TRUE(second.Submit(Header(0xbb, 48).data(), two.data(), 65456, error)) << error;
    ASSERT_EQ(0, Serve(m_Handle));
    ASSERT_EQ(0, Serve(m_Handle));
    const Bytes fromFirst = Expect(first, "first");
    const Bytes fromSecond = Expect(second, "second");
    ASSERT_EQ(75u, fromFirst.size());
    EXPECT_EQ(Bytes(56, 0xaa), Bytes(fromFirst.begin() + 8, fromFirst.begin() + 64));
    EXPECT_EQ((Bytes{3, 2, 1, 0, 0, 0, 0, 0, 0, 0, 0}),
              Bytes(fromFirst.begin() + 64, fromFirst.end()));
    ASSERT_EQ(72u + 65456u, fromSecond.size());
    EXPECT_EQ(Bytes(56, 0xbb), Bytes(fromSecond.begin() + 8, fromSecond.begin() + 64));
    EXPECT_EQ((std::vector<uint64_t>{3, 3, 2, 1, 0, 0}), Counters());
}

TEST_F(SslSocketTest, MalformedSubmissionsAreCountedDropsForTheirClientOnly) {
    CSslSocketClient bystander;
    std::string error;
    ASSERT_TRUE(bystander.Connect(m_Path, error));
    uint64_t dropped = 0;
    // Frames shorter than a header, longer than the limit, of an absurd
    // length, and cut short by a hang-up: the length, and the bytes sent.
    for (const auto& [length, present] : std::vector<std::pair<uint32_t, size_t>>{
             {10, 10}, {65537, 0}, {0xffffffffu, 0}, {200, 50}}) {
        Bytes bytes(4 + present, 0x5a);
        memcpy(bytes.data(), &length, 4);
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, m_Path.c_str(), sizeof address.sun_path - 1);
        ASSERT_EQ(0, connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address));
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()),
                  send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL));
        shutdown(fd, SHUT_WR);
        // The server ends the connection: the read sees its end.
        char byte;
        timeval wait = {5, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
        EXPECT_EQ(0, recv(fd, &byte, 1, 0)) << length;
        close(fd);
        for (int tries = 0; tries < 100 && Counters()[5] == dropped; ++tries) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        EXPECT_EQ(++dropped, Counters()[5]) << length;
    }
    EXPECT_EQ(0u, Counters()[1]);  // nothing reached the queue
    ASSERT_TRUE(bystander.Submit(Header(0x33, 0).data(), nullptr, 0, error));
    EXPECT_EQ(0, Serve(m_Handle));
    EXPECT_EQ(72u, Expect(bystander, "bystander").size());
}

TEST_F(SslSocketTest, TheRegisteredEventAndAStopEndTheWait) {
    auto waiting = std::async(std::launch::async, [&] { return Serve(m_Handle); });
    EXPECT_EQ(std::future_status::timeout, waiting.wait_for(std::chrono::milliseconds(100)));
    const uint64_t one = 1;
    ASSERT_EQ(8, write(m_Event, &one, sizeof one));
    ASSERT_EQ(std::future_status::ready, waiting.wait_for(std::chrono::seconds(5)));
    EXPECT_EQ(ECANCELED, waiting.get());
    char text[128];
    norvi_get_error(m_Handle, text, sizeof text);
    EXPECT_NE(nullptr, strstr(text, "event")) << text;

    // A second socket is refused while one is served; the same one is fine.
    EXPECT_EQ(EBUSY, m_Listen((m_Path + "2").c_str()));
    EXPECT_EQ(0, m_Listen(m_Path.c_str()));
    const norvi_handle_t other = norvi_open();
    auto stopped = std::async(std::launch::async, [&] { return Serve(other); });
    EXPECT_EQ(std::future_status::timeout, stopped.wait_for(std::chrono::milliseconds(100)));
    EXPECT_EQ(0, m_Listen(nullptr));
    ASSERT_EQ(std::future_status::ready, stopped.wait_for(std::chrono::seconds(5)));
    EXPECT_EQ(ESHUTDOWN, stopped.get());
    EXPECT_NE(0, access(m_Path.c_str(), F_OK));  // the socket file is gone
    EXPECT_EQ(ENOTCONN, Serve(other));
    norvi_close(other);
    // A response with nowhere to go and a short response.
    const Bytes shortResponse(71, 0);
    EXPECT_NE(0, norvi_ssl_response(m_Handle, shortResponse.data(), shortResponse.size()));
}

}  // namespace
