// The host core's loader of libnorvi.so when the library can't be loaded:
// every norvi_* call must fail cleanly and say why. The loader tries once per
// process, so this program only ever points it at a missing file, before the
// first call.
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <gtest/gtest.h>

#include <string>

#include "host/NorviLoader.h"
#include "host/norvi.h"

namespace {

const char kMissingLibrary[] = VEXIL_BUILD_DIR "/no-such-dir/libnorvi-missing.so";
const int kLibraryChosen = setenv("NORVI_LIBRARY", kMissingLibrary, 1);

std::string LastError(norvi_handle_t handle) {
    char text[256] = "untouched";
    EXPECT_EQ(0, norvi_get_error(handle, text, sizeof text));
    return text;
}

TEST(NorviLoader, MissingLibraryFailsEveryCallWithTheReason) {
    ASSERT_EQ(0, kLibraryChosen);

    EXPECT_EQ(nullptr, norvi_open());
    const std::string reason = LastError(nullptr);
    EXPECT_EQ(0u, reason.find("libnorvi.so could not be loaded: ")) << reason;
    EXPECT_NE(std::string::npos, reason.find(kMissingLibrary)) << reason;

    // A handle that never came from the library is not touched.
    const norvi_handle_t bogus = reinterpret_cast<norvi_handle_t>(0x10);
    EXPECT_EQ(reason, LastError(bogus));
    unsigned char header[80];
    const void* data = nullptr;
    uint32_t dataLen = 7;
    const unsigned char request[12] = {0, 4};
    EXPECT_EQ(ENOSYS, norvi_register_event(bogus, 1, 0));
    EXPECT_EQ(ENOSYS, norvi_get_ssl_request(bogus, header, &data, &dataLen));
    EXPECT_EQ(nullptr, data);
    EXPECT_EQ(7u, dataLen);
    EXPECT_EQ(ENOSYS, norvi_ssl_response(bogus, header, sizeof header));
    EXPECT_EQ(ENOSYS, norvi_add_blacklist(nullptr, request));
    norvi_close(bogus);
    norvi_close(nullptr);

    EXPECT_EQ(nullptr, NorvCore::NorviSymbol("norvi_test_reset"));
    EXPECT_EQ(nullptr, NorvCore::NorviSymbol(nullptr));

    // The reason is cut to the buffer and always terminated.
    char small[8];
    memset(small, 'x', sizeof small);
    EXPECT_EQ(0, norvi_get_error(nullptr, small, sizeof small));
    EXPECT_EQ(std::string("libnorv"), small);
    EXPECT_NE(0, norvi_get_error(nullptr, nullptr, 16));
    EXPECT_NE(0, norvi_get_error(nullptr, small, 0));
}

}  // namespace
