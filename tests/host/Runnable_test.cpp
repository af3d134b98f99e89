// CRunnable: start and stop, OnExit, logging from the thread, the thread's
// flags, and CDom::ShouldExit on a CRunnable thread.
#include "host/Runnable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <thread>

#include <wx/log.h>

#include "host/Dom.h"
#include "host/Trace.h"

namespace {

using Clock = std::chrono::steady_clock;

// A thread whose body is a function given by the test.
class CTestThread : public NorvCore::CRunnable {
public:
    explicit CTestThread(std::function<void(CTestThread&)> body, bool blockSignals = false,
                         int cpu = -1)
        : CRunnable(blockSignals, cpu, false), m_Body(std::move(body)) {}
    ~CTestThread() override { StopThread(nullptr); }

    const char* GetThreadName() const override { return "CTestThreadWithALongName"; }

    std::atomic<int> m_OnExitCalls{0};
    std::atomic<bool> m_RunningInOnExit{false};
    std::function<void()> m_OnExitExtra;

protected:
    void OnRun() override { m_Body(*this); }
    void OnExit() override {
        m_RunningInOnExit = isRunning();
        ++m_OnExitCalls;
        if (m_OnExitExtra) {
            m_OnExitExtra();
        }
        CRunnable::OnExit();
    }

private:
    std::function<void(CTestThread&)> m_Body;
};

void WaitUntil(const std::function<bool()>& done) {
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (!done() && Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

TEST(RunnableTest, AWakeEndsOneWaitAndAStopEndsTheLastOnce) {
    std::atomic<int> wakes{0};
    CTestThread thread([&wakes](CTestThread& self) {
        bool woken = false;
        while (!self.TestDestroy(60000, &woken)) {
            wakes += woken ? 1 : 0;
        }
    });
    thread.start(50, true, 0);
    EXPECT_TRUE(thread.isRunning());
    thread.Awaken();
    WaitUntil([&wakes] { return wakes.load() > 0; });
    const auto before = Clock::now();
    thread.StopThread(L"stopper");
    EXPECT_LT(Clock::now() - before, std::chrono::seconds(10));
    EXPECT_EQ(wakes.load(), 1);
    EXPECT_FALSE(thread.isRunning());
    EXPECT_TRUE(thread.ExitRequested());
    EXPECT_EQ(thread.m_OnExitCalls.load(), 1);
    EXPECT_TRUE(thread.m_RunningInOnExit.load());
    thread.StopThread(L"again");

    // A thread object runs once, and says so.
    NorvCore::TakeOperatorLogLines();
    thread.start(50, true, 0);
    EXPECT_FALSE(thread.isRunning());
    EXPECT_THAT(NorvCore::TakeOperatorLogLines(),
                testing::ElementsAre(testing::HasSubstr("started before")));
    EXPECT_EQ(thread.m_OnExitCalls.load(), 1);

    CTestThread never([](CTestThread&) {});
    never.StopThread(nullptr);
    EXPECT_FALSE(never.isRunning());
    EXPECT_EQ(never.m_OnExitCalls.load(), 0);
}

TEST(RunnableTest, ABodyThatEndsLogsAtOnceAndCountsAsStoppedOnlyAfterOnExit) {
    NorvCore::TakeOperatorLogLines();
    std::vector<std::string> seenOnThread;
    NorvCore::CRunnable* current = nullptr;
    CTestThread thread([&](CTestThread&) {
        current = NorvCore::CRunnable::Current();
        wxLogError("from the SSL side %d", 7);
        seenOnThread = NorvCore::TakeOperatorLogLines();
        throw std::runtime_error("broken");
    });
    std::atomic<bool> onExitDone{false};
    thread.m_OnExitExtra = [&onExitDone] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        wxLogWarning("leaving");
        onExitDone = true;
    };
    thread.start(50, false, 0);
    WaitUntil([&thread] { return !thread.isRunning(); });
    EXPECT_TRUE(onExitDone.load());
    thread.StopThread(nullptr);
    EXPECT_EQ(current, &thread);
    EXPECT_EQ(NorvCore::CRunnable::Current(), nullptr);
    EXPECT_EQ(seenOnThread, std::vector<std::string>{"Error: from the SSL side 7"});
    EXPECT_EQ(thread.m_OnExitCalls.load(), 1);
    // What the thread logged to the end is there once StopThread has returned.
    EXPECT_EQ(NorvCore::TakeOperatorLogLines(),
              (std::vector<std::string>{
                  "Error: Thread CTestThreadWithALongName ended by an exception: broken",
                  "Warning: leaving"}));
}

TEST(RunnableTest, ConstructorFlagsBlockSignalsAndBindTheProcessor) {
    cpu_set_t allowed;
    ASSERT_EQ(sched_getaffinity(0, sizeof(allowed), &allowed), 0);
    int cpu = CPU_SETSIZE - 1;
    while (cpu > 0 && !CPU_ISSET(cpu, &allowed)) {
        --cpu;
    }
    for (bool flags : {true, false}) {
        std::atomic<int> blocked{-1};  // bits: SIGTERM, SIGSEGV
        cpu_set_t cpus;
        CPU_ZERO(&cpus);
        CTestThread thread(
            [&](CTestThread&) {
                sigset_t mask;
                pthread_sigmask(SIG_BLOCK, nullptr, &mask);
                blocked = sigismember(&mask, SIGTERM) | sigismember(&mask, SIGSEGV) << 1;
                pthread_getaffinity_np(pthread_self(), sizeof(cpus), &cpus);
            },
            flags, flags ? cpu : -1);
        thread.start(50, true, 0);
        thread.StopThread(nullptr);
        EXPECT_EQ(blocked.load(), flags ? 1 : 0);
        EXPECT_EQ(CPU_COUNT(&cpus), flags ? 1 : CPU_COUNT(&allowed));
        EXPECT_TRUE(CPU_ISSET(cpu, &cpus));
    }
}

TEST(RunnableTest, DomShouldExitOnTheThreadEndsOnStopOrExitRequest) {
    NorvCore::CDom dom(":memory:");
    std::atomic<int> rounds{0};
    std::atomic<bool> lastWoken{false};
    const auto body = [&](CTestThread&) {
        bool woken = false;
        while (!dom.ShouldExit(60000, &woken)) {
            ++rounds;
        }
        lastWoken = woken;
    };
    CTestThread stopped(body);
    stopped.start(50, true, 0);
    const auto before = Clock::now();
    stopped.StopThread(nullptr);
    EXPECT_TRUE(lastWoken.load());
    EXPECT_FALSE(dom.ShouldExit(0, nullptr));  // the agent itself goes on

    CTestThread agentExit(body);
    agentExit.start(50, true, 0);
    dom.RequestExit();
    WaitUntil([&agentExit] { return !agentExit.isRunning(); });
    EXPECT_LT(Clock::now() - before, std::chrono::seconds(10));
    EXPECT_FALSE(agentExit.isRunning());
    EXPECT_FALSE(agentExit.ExitRequested());
    EXPECT_EQ(rounds.load(), 0);
}

}  // namespace
