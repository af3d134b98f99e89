// The in-process driver library, reached as the system reaches it: through
// the host core's loader, pointed at the libnorvi.so of this build.
#include <errno.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <lua.hpp>

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "driver/standin/NorviControl.h"
#include "host/NorviLoader.h"
#include "host/norvi.h"

namespace {

// Chosen before any test makes the first norvi call, which loads the library.
const int kLibraryChosen = setenv("NORVI_LIBRARY", NORVI_STANDIN_LIBRARY, 0);

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

// One call of norvi_get_ssl_request, with copies of what it gave.
struct Served {
    int code;
    Bytes header;
    Bytes data;
};

Served GetRequest(norvi_handle_t handle) {
    unsigned char header[NORVI_SSL_HEADER_SIZE];
    const void* data = nullptr;
    uint32_t dataLen = 0;
    Served served{norvi_get_ssl_request(handle, header, &data, &dataLen), {}, {}};
    if (served.code == 0) {
        served.header.assign(header, header + sizeof header);
        const unsigned char* bytes = static_cast<const unsigned char*>(data);
        served.data.assign(bytes, bytes + dataLen);
    }
    return served;
}

void Signal(int event) {
    const uint64_t one = 1;
    ASSERT_EQ(static_cast<ssize_t>(sizeof one), write(event, &one, sizeof one));
}

class NorviDriver : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, kLibraryChosen);
        ASSERT_NE(nullptr, CONTROL(norvi_test_reset)) << LastError(nullptr);
        CONTROL(norvi_test_reset)();
        m_HandlesBefore = CONTROL(norvi_test_open_handles)();
        m_Event = eventfd(0, EFD_CLOEXEC);
        ASSERT_GE(m_Event, 0);
    }
    void TearDown() override {
        close(m_Event);
        EXPECT_EQ(m_HandlesBefore, CONTROL(norvi_test_open_handles)());
        CONTROL(norvi_test_reset)();
    }

    // Up to maxRequests recorded block requests, oldest first, end to end.
    Bytes TakeBlacklist(size_t maxRequests) {
        Bytes buffer(maxRequests * NORVI_BLACKLIST_REQUEST_SIZE);
        buffer.resize(CONTROL(norvi_test_take_blacklist_requests)(buffer.data(), maxRequests) *
                      NORVI_BLACKLIST_REQUEST_SIZE);
        return buffer;
    }

    void Submit(const Bytes& header, const Bytes& data) {
        ASSERT_EQ(0, CONTROL(norvi_test_submit_ssl_request)(header.data(), data.data(),
                                                            static_cast<uint32_t>(data.size())));
    }

    size_t m_HandlesBefore = 0;
    int m_Event = -1;
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
    EXPECT_NE(std::string::npos, LastError(handle).find("norvi_add_blacklist"));
    EXPECT_EQ(EINVAL, norvi_add_blacklist(handle, nullptr));
    EXPECT_EQ(EINVAL, norvi_add_blacklist(nullptr, first));
    EXPECT_NE(std::string::npos, LastError(nullptr).find("null handle")) << LastError(nullptr);

    // A refused request still reached the driver; both come out in order,
    // one at a time when the caller takes one at a time.
    EXPECT_EQ(Bytes(first, first + 12), TakeBlacklist(1));
    EXPECT_EQ(Bytes(second, second + 12), TakeBlacklist(8));
    EXPECT_TRUE(TakeBlacklist(8).empty());

    // Reset brings the result back to success.
    CONTROL(norvi_test_reset)();
    EXPECT_EQ(0, norvi_add_blacklist(handle, first));
    norvi_close(handle);

    // A closed handle is refused, never touched.
    unsigned char header[NORVI_SSL_HEADER_SIZE];
    const void* data = nullptr;
    uint32_t dataLen = 0;
    EXPECT_EQ(EBADF, norvi_add_blacklist(handle, first));
    EXPECT_EQ(EBADF, norvi_register_event(handle, 1, m_Event));
    EXPECT_EQ(EBADF, norvi_get_ssl_request(handle, header, &data, &dataLen));
    EXPECT_EQ(EBADF, norvi_ssl_response(handle, header, sizeof header));
    char text[64];
    EXPECT_EQ(EBADF, norvi_get_error(handle, text, sizeof text));
    EXPECT_NE(std::string::npos, LastError(nullptr).find("not an open handle"));
    norvi_close(handle);  // a second close is harmless
    EXPECT_EQ(Bytes(first, first + 12), TakeBlacklist(8));
    norvi_handle_t sender = nullptr;
    EXPECT_EQ(-1, CONTROL(norvi_test_take_ssl_response)(text, sizeof text, &sender));
}

TEST_F(NorviDriver, RequestsGoOutInOrderAndStayValidUntilTheNextCall) {
    norvi_handle_t handle = norvi_open();
    norvi_handle_t other = norvi_open();
    ASSERT_NE(nullptr, handle);
    ASSERT_NE(nullptr, other);
    unsigned char header[NORVI_SSL_HEADER_SIZE];
    const void* data = nullptr;
    uint32_t dataLen = 0;
    // Without an event or a request the call returns at once.
    EXPECT_NE(0, GetRequest(handle).code);
    EXPECT_EQ(EINVAL, norvi_get_ssl_request(handle, nullptr, &data, &dataLen));
    EXPECT_EQ(EINVAL, norvi_register_event(handle, 2, 0));
    EXPECT_NE(0, norvi_register_event(handle, 1, -1));

    const Bytes firstData = {1, 2, 3};
    Submit(Header(10), firstData);
    Submit(Header(20), {});
    ASSERT_EQ(0, norvi_get_ssl_request(other, header, &data, &dataLen));
    EXPECT_EQ(Header(10), Bytes(header, header + sizeof header));
    ASSERT_EQ(3u, dataLen);
    const unsigned char* firstBlock = static_cast<const unsigned char*>(data);
    ASSERT_EQ(0, norvi_get_ssl_request(handle, header, &data, &dataLen));
    EXPECT_EQ(Header(20), Bytes(header, header + sizeof header));
    EXPECT_EQ(0u, dataLen);
    EXPECT_NE(nullptr, data);
    EXPECT_EQ(firstData, Bytes(firstBlock, firstBlock + 3));

    EXPECT_EQ(EINVAL, CONTROL(norvi_test_submit_ssl_request)(nullptr, nullptr, 0));
    EXPECT_EQ(EINVAL, CONTROL(norvi_test_submit_ssl_request)(header, nullptr, 4));
    const Bytes tooLong(NORVI_SSL_DATA_MAX + 1);
    EXPECT_EQ(EINVAL, CONTROL(norvi_test_submit_ssl_request)(header, tooLong.data(),
                                                             NORVI_SSL_DATA_MAX + 1));
    norvi_close(other);
    norvi_close(handle);
}

TEST_F(NorviDriver, WaitEndsWithASubmittedRequestTheEventOrClose) {
    norvi_handle_t handle = norvi_open();
    ASSERT_NE(nullptr, handle);
    ASSERT_EQ(0, norvi_register_event(handle, 1, m_Event));

    std::future<Served> waiting = std::async(std::launch::async, GetRequest, handle);
    EXPECT_EQ(std::future_status::timeout, waiting.wait_for(std::chrono::milliseconds(100)));
    const Bytes payload(300, 0xab);
    Submit(Header(1), payload);
    if (waiting.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
        Signal(m_Event);  // release the thread
        FAIL() << "a submitted request did not end the wait";
    }
    Served served = waiting.get();
    EXPECT_EQ(0, served.code);
    EXPECT_EQ(Header(1), served.header);
    EXPECT_EQ(payload, served.data);

    // A handle that is waiting can't swap its event under the wait.
    waiting = std::async(std::launch::async, GetRequest, handle);
    EXPECT_EQ(std::future_status::timeout, waiting.wait_for(std::chrono::milliseconds(100)));
    EXPECT_EQ(EBUSY, norvi_register_event(handle, 1, m_Event));
    Signal(m_Event);
    ASSERT_EQ(std::future_status::ready, waiting.wait_for(std::chrono::seconds(10)));
    EXPECT_NE(0, waiting.get().code);
    EXPECT_NE(std::string::npos, LastError(handle).find("event")) << LastError(handle);

    // The event stays set, as a manual-reset event does: the next wait ends
    // at once, while a queued request is still served first.
    EXPECT_NE(0, GetRequest(handle).code);
    Submit(Header(2), {});
    EXPECT_EQ(0, GetRequest(handle).code);
    norvi_close(handle);

    // Closing a handle ends its wait; the handle keeps its own reference to
    // the event.
    handle = norvi_open();
    const int event = eventfd(0, EFD_CLOEXEC);
    ASSERT_EQ(0, norvi_register_event(handle, 1, event));
    close(event);
    waiting = std::async(std::launch::async, GetRequest, handle);
    EXPECT_EQ(std::future_status::timeout, waiting.wait_for(std::chrono::milliseconds(100)));
    norvi_close(handle);
    ASSERT_EQ(std::future_status::ready, waiting.wait_for(std::chrono::seconds(10)));
    EXPECT_EQ(EBADF, waiting.get().code);
}

TEST_F(NorviDriver, ResponsesAreRecordedWithTheirHandleInOrder) {
    norvi_handle_t first = norvi_open();
    norvi_handle_t second = norvi_open();
    ASSERT_NE(nullptr, first);
    ASSERT_NE(nullptr, second);

    const Bytes failure(72, 0);
    const Bytes success(120, 0x5a);
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

// A box of the Lua module holds a handle of the same loaded library, and
// collecting an open box closes it.
TEST_F(NorviDriver, LuaBoxesHoldHandlesOfTheSameLibrary) {
    lua_State* L = luaL_newstate();
    ASSERT_NE(nullptr, L);
    luaL_openlibs(L);
    const char* const setUp = "package.cpath = '" VEXIL_BUILD_DIR
                              "/?.so'\n"
                              "box = assert(require('norvi').open())\n"
                              "return box";
    ASSERT_EQ(LUA_OK, luaL_dostring(L, setUp)) << lua_tostring(L, -1);
    void* const box = luaL_testudata(L, -1, "norvi_handle_t*");
    ASSERT_NE(nullptr, box);
    const norvi_handle_t handle = *static_cast<norvi_handle_t*>(box);
    lua_pop(L, 1);
    char text[8];
    EXPECT_EQ(0, norvi_get_error(handle, text, sizeof text));  // a stale handle gives EBADF
    EXPECT_EQ(m_HandlesBefore + 1, CONTROL(norvi_test_open_handles)());
    ASSERT_EQ(LUA_OK, luaL_dostring(L, "box = nil collectgarbage() collectgarbage()"));
    EXPECT_EQ(m_HandlesBefore, CONTROL(norvi_test_open_handles)());
    lua_close(L);
}

}  // namespace
