// The SSL key service under a long load: one thread feeds requests to the
// driver stand-in, the configuration is reloaded all the while, and the
// service is stopped in the middle of the traffic and made anew, several
// times. Every request is answered exactly once and rightly, or was still
// queued when a service stopped; no handle or thread outlives the services.
// VEXIL_SOAK_REQUESTS sets the number of requests: `make soak` runs 100000,
// the default is a short form for the sanitizer runs of `make check`.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "ssl/SSLCertThread.h"
#include "tests/ssl/SslTestSupport.h"

namespace {

using ssltest::Header;
using ssltest::KeyMaterial;
using ssltest::Response;
using Clock = std::chrono::steady_clock;

// Services made one after the other; all but the last are stopped while
// requests are in flight.
const int kServices = 5;
// Requests submitted but not yet settled, at most.
const u32 kWindow = 256;
// Longest time without any request settling before the test gives up.
const std::chrono::seconds kStallLimit(60);

u32 RequestCount() {
    const char* text = getenv("VEXIL_SOAK_REQUESTS");
    const long count = text != nullptr ? strtol(text, nullptr, 10) : 0;
    return count > 0 ? static_cast<u32>(count) : 3000;
}

size_t ThreadCount() {
    std::ifstream status("/proc/self/status");
    std::string field;
    size_t count = 0;
    while (status >> field && field != "Threads:") {
    }
    status >> count;
    return count;
}

// Tag % 16 picks the kind: SSL 3.0, TLS 1.2 and (13) TLS 1.2 from PKCS#12
// decrypt; an unknown credential (14) and a bad version (15) fail. Host
// configurations 9 and 10 have the same key, from files or as blobs, so
// that answers don't depend on the form a worker sees.
bool IsTls(u32 tag) {
    return tag % 16 >= 13 || tag % 2 == 1;
}

ssltest::Bytes RequestHeader(u32 tag) {
    const u32 kind = tag % 16;
    const u32 id = kind == 13 ? 10 : kind == 14 ? 12 : 9;
    return Header(IsTls(tag) ? 130 : 128, id, kind == 15 ? 2 : 3, IsTls(tag) ? 3 : 0, tag);
}

void Submit(u32 tag) {
    static const std::string cipher = KeyMaterial::Get().Cipher("key");
    ssltest::Submit(RequestHeader(tag), IsTls(tag) ? ssltest::Tls(cipher) : cipher);
}

TEST(SSLSoakThreads, EveryTakenRequestIsAnsweredOnceThroughReloadsAndStops) {
    ASSERT_EQ(0, ssltest::kLibraryChosen);
    ASSERT_TRUE(KeyMaterial::Get().Ok());
    SSL_CONTROL(norvi_test_reset)();
    const size_t handlesBefore = SSL_CONTROL(norvi_test_open_handles)();
    // A sanitizer starts a helper thread of its own when the first thread is
    // made; one made and joined first keeps it out of the count.
    std::thread([] {}).join();
    const size_t threadsBefore = ThreadCount();
    const u32 total = RequestCount();
    NorvCore::CDom dom(":memory:");
    dom.Set("norvp.vexil.SSL.ThreadsPerCpu", i64(4));
    dom.Set("norvp.vexil.SSL.QueueSizeMax", i64(1000000));
    ASSERT_TRUE(dom.SetConfigXml(ssltest::Configuration()));

    // settled: requests answered, or left queued by a stopped service.
    std::atomic<u32> settled{0};
    std::atomic<bool> submitting{true};
    std::thread submitter([&] {
        for (u32 tag = 0; tag < total && submitting; ++tag) {
            while (tag - settled.load() >= kWindow && submitting) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
            Submit(tag);
        }
    });

    std::vector<u8> answers(total, 0);
    u64 answered = 0, stray = 0, wrong = 0, left = 0, reloads = 0;
    size_t peakHandles = 0;
    const auto collect = [&] {
        for (const Response& response : ssltest::TakeResponses()) {
            const u32 tag = response.Tag();
            if (tag >= total || answers[tag]++ != 0) {
                ++stray;  // no such request, or a second answer
                continue;
            }
            ++answered;
            const std::string secret = tag % 16 < 14 ? KeyMaterial::Get().Secret() : "";
            wrong += response.bytes == ssltest::Answer(RequestHeader(tag), secret) ? 0 : 1;
        }
        settled = static_cast<u32>(answered + left);
    };

    for (int round = 0; round < kServices; ++round) {
        VEXIL::CSSLCertThread service(dom);
        service.start(50, true, 0);
        std::atomic<bool> changing{true};
        std::thread changer([&] {
            for (bool blob = true; changing; blob = !blob) {
                dom.SetConfigXml(ssltest::Configuration(blob));
                service.OnSecurityConfigurationChanged();
                ++reloads;
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        });
        // Each service but the last stops once its share has settled.
        const u32 goal = round + 1 == kServices ? total : total / kServices * (round + 1);
        u32 seen = settled;
        auto progress = Clock::now();
        while (settled < goal && Clock::now() - progress < kStallLimit) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            collect();
            peakHandles = std::max(peakHandles, SSL_CONTROL(norvi_test_open_handles)());
            if (settled != seen) {
                seen = settled;
                progress = Clock::now();
            }
        }
        changing = false;
        changer.join();
        service.StopThread(L"soak");
        EXPECT_FALSE(service.isRunning());
        EXPECT_EQ(handlesBefore, SSL_CONTROL(norvi_test_open_handles)()) << "service " << round;
        collect();
        left += service.QueuedRequests();
        collect();
    }
    submitting = false;
    submitter.join();

    EXPECT_EQ(0u, stray);
    EXPECT_EQ(0u, wrong);
    // Every request was answered or still queued at a stop.
    EXPECT_EQ(total, answered + left);
    EXPECT_EQ(threadsBefore, ThreadCount());
    // Several workers shared the load, each on its own handle.
    EXPECT_GT(peakHandles, handlesBefore + 2);
    printf("soak: %u requests, %llu answered, %llu left queued at %d stops, %llu reloads\n", total,
           static_cast<unsigned long long>(answered), static_cast<unsigned long long>(left),
           kServices - 1, static_cast<unsigned long long>(reloads));
    SSL_CONTROL(norvi_test_reset)();
    NorvCore::TakeOperatorLogLines();
}

}  // namespace
