// A process that exits with the SSL service still running, busy decrypting,
// ends with its own exit status: nothing at exit is torn down beneath the
// service's threads. Each round is a child process; the race it guards
// against needs a few rounds to show.
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "ssl/SSLCertThread.h"
#include "tests/ssl/SslTestSupport.h"

namespace {

using ssltest::KeyMaterial;

const int kRounds = 8;
const int kExitStatus = 3;

// The child: starts the service, floods it, and exits without stopping it.
[[noreturn]] void RunChild() {
    // Left alive on purpose: the script never stops the service.
    auto* dom = new NorvCore::CDom(":memory:");
    dom->SetConfigXml(ssltest::Configuration());
    // Every worker step traces and logs: the most use of shared state at exit.
    NorvCore::SetTraceCategories("*");
    auto* service = new VEXIL::CSSLCertThread(*dom);
    service->start(50, true, 0);
    const std::string cipher = KeyMaterial::Get().Cipher("key");
    for (int i = 0; i < 2000; ++i) {
        ssltest::Submit(ssltest::Header(u32(cipher.size()), 9, 3, 0, u32(i)), cipher);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    exit(kExitStatus);
}

TEST(SSLServiceExit, AProcessLeftRunningTheServiceExitsCleanly) {
    ASSERT_TRUE(KeyMaterial::Get().Ok());
    for (int round = 0; round < kRounds; ++round) {
        const pid_t child = fork();
        ASSERT_NE(-1, child);
        if (child == 0) {
            RunChild();
        }
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        ASSERT_TRUE(WIFEXITED(status)) << "round " << round << ": ended by signal "
                                       << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
        EXPECT_EQ(kExitStatus, WEXITSTATUS(status)) << "round " << round;
    }
}

}  // namespace
