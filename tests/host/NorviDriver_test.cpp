// The in-process driver library, reached as the system reaches it: through
// the host core's loader, pointed at the libnorvi.so of this build.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <lua.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "host/NorviLoader.h"
#include "host/norvi.h"
#include "host/norvi/driver/NorviControl.h"

namespace {

// Chosen before any test makes the first norvi call, which loads the library.
const int kLibraryChosen = setenv("NORVI_LIBRARY", VEXIL_BUILD_DIR "/libnorvi.so", 1);

template <typename Function>
Function Control(const char* name) {
    return reinterpret_cast<Function>(NorvCore::NorviSymbol(name));
}
#define CONTROL(name) Control<decltype(&name)>(#name)

typedef std::vector<unsigned char> Bytes;

std::string LastError(norvi_handle_t handle) {
    char text[256] = "";
    norvi_get_error(handle, text, sizeof text);
    return text;
}

Bytes Header(unsigned char tag) {
    Bytes header(NORVI_SSL_HEADER_SIZE);
    for (size_t index = 0; index < header.size(); ++index) {
        header[index] = static_cast<unsigned char>(tag + index);
    }
    return header;
}

class NorviDriver : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, kLibraryChosen);
        ASSERT_NE(nullptr, CONTROL(norvi_test_reset)) << LastError(nullptr);
        CONTROL(norvi_test_reset)();
        m_HandlesBefore = CONTROL(norvi_test_open_handles)();
    }
    void TearDown() override {
        EXPECT_EQ(m_HandlesBefore, CONTROL(norvi_test_open_handles)());
        CONTROL(norvi_test_reset)();
    }

    std::vector<Bytes> TakeBlacklist(size_t maxRequests) {
        Bytes buffer(maxRequests * NORVI_BLACKLIST_REQUEST_SIZE);
        const size_t taken =
            CONTROL(norvi_test_take_blacklist_requests)(buffer.data(), maxRequests);
        std::vector<Bytes> requests;
        for (size_t index = 0; index < taken; ++index) {
            auto begin = buffer.begin() + index * NORVI_BLACKLIST_REQUEST_SIZE;
            requests.emplace_back(begin, begin + NORVI_BLACKLIST_REQUEST_SIZE);
        }
        return requests;
    }

    void Submit(const Bytes& header, const Bytes& data) {
        ASSERT_EQ(0, CONTROL(norvi_test_submit_ssl_request)(header.data(), data.data(),
                                                            static_cast<uint32_t>(data.size())));
    }

    size_t m_HandlesBefore = 0;
};

TEST_F(NorviDriver, BlacklistRecordsRequestsAndReturnsTheChosenResult) {
    norvi_handle_t handle = norvi_open();
    ASSERT_NE(nullptr, handle) << LastError(nullptr);
    EXPECT_EQ(m_HandlesBefore + 1, CONTROL(norvi_test_open_handles)());

    const unsigned char first[12] = {1, 4, 0, 0, 0x10, 0x27, 0, 0, 10, 1, 2, 3};
    const unsigned char second[12] = {0, 4, 0, 0, 0xe8, 0x03, 0, 0, 192, 168, 0, 9};
    EXPECT_EQ(0, norvi_add_blacklist(handle, first));
    CONTROL(norvi_test_set_blacklist_result)(EPERM);
    EXPECT_EQ(EPERM, norvi_add_blacklist(handle, second));
    EXPECT_NE(std::string::npos, LastError(handle).find("norvi_add_blacklist"))
        << LastError(handle);

    // A refused request still reached the driver; both come out in order,
    // one at a time when the caller takes one at a time.
    std::vector<Bytes> taken = TakeBlacklist(1);
    ASSERT_EQ(1u, taken.size());
    EXPECT_EQ(Bytes(first, first + 12), taken[0]);
    taken = TakeBlacklist(8);
    ASSERT_EQ(1u, taken.size());
    EXPECT_EQ(Bytes(second, second + 12), taken[0]);
    EXPECT_TRUE(TakeBlacklist(8).empty());

    EXPECT_EQ(EINVAL, norvi_add_blacklist(handle, nullptr));
    EXPECT_EQ(EINVAL, norvi_add_blacklist(nullptr, first));
    EXPECT_NE(std::string::npos, LastError(nullptr).find("null handle")) << LastError(nullptr);
    EXPECT_TRUE(TakeBlacklist(8).empty());

    // Reset brings the result back to success.
    CONTROL(norvi_test_reset)();
    EXPECT_EQ(0, norvi_add_blacklist(handle, first));
    norvi_close(handle);
}

TEST_F(NorviDriver, StaleHandleIsRefusedNotTouched) {
    norvi_handle_t handle = norvi_open();
    ASSERT_NE(nullptr, handle);
    norvi_close(handle);
    EXPECT_EQ(m_HandlesBefore, CONTROL(norvi_test_open_handles)());

    const unsigned char request[12] = {0, 4};
    unsigned char header[NORVI_SSL_HEADER_SIZE];
    const void* data = nullptr;
    uint32_t dataLen = 0;
    const int event = eventfd(0, EFD_CLOEXEC);
    ASSERT_GE(event, 0);
    EXPECT_EQ(EBADF, norvi_add_blacklist(handle, request));
    EXPECT_EQ(EBADF, norvi_register_event(handle, 1, event));
    EXPECT_EQ(EBADF, norvi_get_ssl_request(handle, header, &data, &dataLen));
    EXPECT_EQ(EBADF, norvi_ssl_response(handle, header, sizeof header));
    char text[64];
    EXPECT_EQ(EBADF, norvi_get_error(handle, text, sizeof text));
    EXPECT_NE(std::string::npos, LastError(nullptr).find("not an open handle"));
    norvi_close(handle);  // a second close is harmless
    EXPECT_TRUE(TakeBlacklist(8).empty());
    norvi_handle_t sender = nullptr;
    EXPECT_EQ(-1, CONTROL(norvi_test_take_ssl_response)(text, sizeof text, &sender));
    close(event);
}

TEST_F(NorviDriver, GetSslRequestWithoutEventOrRequestReturnsAtOnce) {
    norvi_handle_t handle = norvi_open();
    ASSERT_NE(nullptr, handle);
    unsigned char header[NORVI_SSL_HEADER_SIZE];
    const void* data = nullptr;
    uint32_t dataLen = 0;
    EXPECT_NE(0, norvi_get_ssl_request(handle, header, &data, &dataLen));
    EXPECT_EQ(EINVAL, norvi_get_ssl_request(handle, nullptr, &data, &dataLen));
    EXPECT_EQ(EINVAL, norvi_register_event(handle, 2, 0));
    EXPECT_NE(0, norvi_register_event(handle, 1, -1));

    // Requests go out in submission order, whichever handle asks; the data
    // of the previous call stays valid until the next one on the handle.
    norvi_handle_t other = norvi_open();
    ASSERT_NE(nullptr, other);
    const Bytes firstData = {1, 2, 3};
    Submit(Header(10), firstData);
    Submit(Header(20), {});
    ASSERT_EQ(0, norvi_get_ssl_request(other, header, &data, &dataLen));
    EXPECT_EQ(Header(10), Bytes(header, header + sizeof header));
    ASSERT_EQ(3u, dataLen);
    const void* firstBlock = data;
    ASSERT_EQ(0, norvi_get_ssl_request(handle, header, &data, &dataLen));
    EXPECT_EQ(Header(20), Bytes(header, header + sizeof header));
    EXPECT_EQ(0u, dataLen);
    EXPECT_NE(nullptr, data);
    EXPECT_EQ(firstData, Bytes(static_cast<const unsigned char*>(firstBlock),
                               static_cast<const unsigned char*>(firstBlock) + 3));

    EXPECT_EQ(EINVAL, CONTROL(norvi_test_submit_ssl_request)(nullptr, nullptr, 0));
    EXPECT_EQ(EINVAL, CONTROL(norvi_test_submit_ssl_request)(header, nullptr, 4));
    const Bytes tooLong(NORVI_SSL_DATA_MAX + 1);
    EXPECT_EQ(EINVAL, CONTROL(norvi_test_submit_ssl_request)(header, tooLong.data(),
                                                             NORVI_SSL_DATA_MAX + 1));
    norvi_close(other);
    norvi_close(handle);
}

TEST_F(NorviDriver, WaitEndsWithASubmittedRequestOrTheEvent) {
    norvi_handle_t handle = norvi_open();
    ASSERT_NE(nullptr, handle);
    const int event = eventfd(0, EFD_CLOEXEC);
    ASSERT_GE(event, 0);
    ASSERT_EQ(0, norvi_register_event(handle, 1, event));

    struct Outcome {
        int code;
        Bytes header;
        Bytes data;
    };
    auto wait = [handle] {
        unsigned char header[NORVI_SSL_HEADER_SIZE];
        const void* data = nullptr;
        uint32_t dataLen = 0;
        Outcome outcome{norvi_get_ssl_request(handle, header, &data, &dataLen), {}, {}};
        if (outcome.code == 0) {
            outcome.header.assign(header, header + sizeof header);
            const unsigned char* bytes = static_cast<const unsigned char*>(data);
            outcome.data.assign(bytes, bytes + dataLen);
        }
        return outcome;
    };
    const uint64_t one = 1;

    std::future<Outcome> waiting = std::async(std::launch::async, wait);
    EXPECT_EQ(std::future_status::timeout, waiting.wait_for(std::chrono::milliseconds(100)));
    const Bytes payload(300, 0xab);
    Submit(Header(1), payload);
    if (waiting.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
        ASSERT_EQ(static_cast<ssize_t>(sizeof one),
                  write(event, &one, sizeof one));  // release the thread
        FAIL() << "a submitted request did not end the wait";
    }
    Outcome served = waiting.get();
    EXPECT_EQ(0, served.code);
    EXPECT_EQ(Header(1), served.header);
    EXPECT_EQ(payload, served.data);

    // A handle that is waiting can't swap its event under the wait.
    waiting = std::async(std::launch::async, wait);
    EXPECT_EQ(std::future_status::timeout, waiting.wait_for(std::chrono::milliseconds(100)));
    EXPECT_EQ(EBUSY, norvi_register_event(handle, 1, event));
    ASSERT_EQ(static_cast<ssize_t>(sizeof one), write(event, &one, sizeof one));
    ASSERT_EQ(std::future_status::ready, waiting.wait_for(std::chrono::seconds(10)));
    EXPECT_NE(0, waiting.get().code);
    EXPECT_NE(std::string::npos, LastError(handle).find("event")) << LastError(handle);

    // The event stays set, as a manual-reset event does: the next wait ends
    // at once, while a queued request is still served first.
    EXPECT_NE(0, wait().code);
    Submit(Header(2), {});
    EXPECT_EQ(0, wait().code);

    norvi_close(handle);
    close(event);
}

TEST_F(NorviDriver, CloseEndsAWaitOnTheHandle) {
    norvi_handle_t handle = norvi_open();
    ASSERT_NE(nullptr, handle);
    const int event = eventfd(0, EFD_CLOEXEC);
    ASSERT_GE(event, 0);
    ASSERT_EQ(0, norvi_register_event(handle, 1, event));
    close(event);  // the handle keeps its own reference to the event

    std::future<int> waiting = std::async(std::launch::async, [handle] {
        unsigned char header[NORVI_SSL_HEADER_SIZE];
        const void* data = nullptr;
        uint32_t dataLen = 0;
        return norvi_get_ssl_request(handle, header, &data, &dataLen);
    });
    EXPECT_EQ(std::future_status::timeout, waiting.wait_for(std::chrono::milliseconds(100)));
    norvi_close(handle);
    ASSERT_EQ(std::future_status::ready, waiting.wait_for(std::chrono::seconds(10)));
    EXPECT_EQ(EBADF, waiting.get());
}

TEST_F(NorviDriver, ManyWaitersServeEveryRequestOnce) {
    const int kThreads = 3;
    const int kRequests = 60;
    const int event = eventfd(0, EFD_CLOEXEC);
    ASSERT_GE(event, 0);
    std::atomic<int> served{0};
    std::vector<std::vector<int>> seen(kThreads);
    std::vector<std::thread> threads;
    for (int index = 0; index < kThreads; ++index) {
        threads.emplace_back([&, index] {
            norvi_handle_t handle = norvi_open();
            if (handle == nullptr || norvi_register_event(handle, 1, event) != 0) {
                return;
            }
            unsigned char header[NORVI_SSL_HEADER_SIZE];
            const void* data = nullptr;
            uint32_t dataLen = 0;
            while (norvi_get_ssl_request(handle, header, &data, &dataLen) == 0) {
                seen[index].push_back(header[0]);
                ++served;
            }
            norvi_close(handle);
        });
    }
    for (int request = 0; request < kRequests; ++request) {
        Submit(Header(static_cast<unsigned char>(request)), {});
    }
    for (int tries = 0; served < kRequests && tries < 1000; ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const uint64_t one = 1;
    EXPECT_EQ(static_cast<ssize_t>(sizeof one), write(event, &one, sizeof one));
    for (std::thread& thread : threads) {
        thread.join();
    }
    close(event);

    std::vector<int> all;
    for (const std::vector<int>& ids : seen) {
        EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end()));
        all.insert(all.end(), ids.begin(), ids.end());
    }
    std::sort(all.begin(), all.end());
    std::vector<int> expected(kRequests);
    for (int request = 0; request < kRequests; ++request) {
        expected[request] = request;
    }
    EXPECT_EQ(expected, all);
}

TEST_F(NorviDriver, ResponsesAreRecordedWithTheirHandleInOrder) {
    norvi_handle_t first = norvi_open();
    norvi_handle_t second = norvi_open();
    ASSERT_NE(nullptr, first);
    ASSERT_NE(nullptr, second);

    const Bytes failure(72, 0);
    Bytes success(120, 0);
    success[0] = 48;
    success[64] = 0x5a;
    EXPECT_EQ(0, norvi_ssl_response(second, success.data(), success.size()));
    CONTROL(norvi_test_set_ssl_response_result)(EIO);
    EXPECT_EQ(EIO, norvi_ssl_response(first, failure.data(), failure.size()));
    EXPECT_NE(std::string::npos, LastError(first).find("norvi_ssl_response"));
    EXPECT_EQ(EINVAL, norvi_ssl_response(first, nullptr, 10));

    auto take = CONTROL(norvi_test_take_ssl_response);
    Bytes buffer(200);
    norvi_handle_t sender = nullptr;
    // Too small a buffer leaves the response queued and tells its size.
    EXPECT_EQ(120, take(buffer.data(), 119, &sender));
    EXPECT_EQ(nullptr, sender);
    ASSERT_EQ(120, take(buffer.data(), buffer.size(), &sender));
    EXPECT_EQ(second, sender);
    EXPECT_EQ(success, Bytes(buffer.begin(), buffer.begin() + 120));
    ASSERT_EQ(72, take(buffer.data(), buffer.size(), &sender));
    EXPECT_EQ(first, sender);
    EXPECT_EQ(failure, Bytes(buffer.begin(), buffer.begin() + 72));
    EXPECT_EQ(-1, take(buffer.data(), buffer.size(), &sender));

    norvi_close(first);
    norvi_close(second);
}

// The Lua module reaches the same loaded library: what the C side sends
// shows in its controls, what it submits reaches the C side, and collecting an
// open box closes the handle.
TEST_F(NorviDriver, LuaModuleWorksOnTheSameLoadedLibrary) {
    lua_State* L = luaL_newstate();
    ASSERT_NE(nullptr, L);
    luaL_openlibs(L);
    const char* const setUp = "package.cpath = '" VEXIL_BUILD_DIR
                              "/?.so'\n"
                              "norvi = require 'norvi'\n"
                              "box = assert(norvi.open())\n"
                              "return box";
    ASSERT_EQ(LUA_OK, luaL_dostring(L, setUp)) << lua_tostring(L, -1);
    void* const box = luaL_testudata(L, -1, "norvi_handle_t*");
    ASSERT_NE(nullptr, box);
    const norvi_handle_t handle = *static_cast<norvi_handle_t*>(box);
    lua_pop(L, 1);
    EXPECT_EQ(m_HandlesBefore + 1, CONTROL(norvi_test_open_handles)());

    const unsigned char request[12] = {0, 4, 0, 0, 0x20, 0xa1, 0x07, 0, 172, 16, 5, 4};
    EXPECT_EQ(0, norvi_add_blacklist(handle, request));
    const Bytes response = {48, 0, 0, 0, 9, 8, 7};
    EXPECT_EQ(0, norvi_ssl_response(handle, response.data(), response.size()));
    const char* const check =
        "local requests = norvi.BlacklistRequests()\n"
        "assert(#requests == 1)\n"
        "assert(requests[1].address == '172.16.5.4', requests[1].address)\n"
        "assert(requests[1].milliseconds == 500000)\n"
        "assert(requests[1].bytes == '\\0\\4\\0\\0\\32\\161\\7\\0\\172\\16\\5\\4')\n"
        "local responses = norvi.SslResponses()\n"
        "assert(#responses == 1 and responses[1] == '0\\0\\0\\0\\9\\8\\7')\n"
        "assert(#norvi.SslResponses() == 0)\n"
        "norvi.SubmitSslRequest(string.rep('H', 80), 'secret')\n";
    ASSERT_EQ(LUA_OK, luaL_dostring(L, check)) << lua_tostring(L, -1);

    unsigned char header[NORVI_SSL_HEADER_SIZE];
    const void* data = nullptr;
    uint32_t dataLen = 0;
    ASSERT_EQ(0, norvi_get_ssl_request(handle, header, &data, &dataLen));
    EXPECT_EQ(Bytes(NORVI_SSL_HEADER_SIZE, 'H'), Bytes(header, header + sizeof header));
    EXPECT_EQ("secret", std::string(static_cast<const char*>(data), dataLen));

    ASSERT_EQ(LUA_OK, luaL_dostring(L, "box = nil collectgarbage() collectgarbage()"));
    EXPECT_EQ(m_HandlesBefore, CONTROL(norvi_test_open_handles)());
    lua_close(L);
}

}  // namespace
