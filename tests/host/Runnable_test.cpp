// CRunnable: start and stop, waking, OnExit, logging from the thread, and
// CDom::ShouldExit on a CRunnable thread.
#include "host/Runnable.h"

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
                         int cpu = -1, bool nameThread = false)
        : CRunnable(blockSignals, cpu, nameThread), m_Body(std::move(body)) {}
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

void WaitUntilStopped(NorvCore::CRunnable& thread) {
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (thread.isRunning() && Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

TEST(RunnableTest, StartAndStopRunOnExitOnce) {
    std::atomic<int> loops{0};
    CTestThread thread([&loops](CTestThread& self) {
        while (!self.TestDestroy(1000, nullptr)) {
            ++loops;
        }
    });
    EXPECT_FALSE(thread.isRunning());
    thread.start(50, true, 0);
    EXPECT_TRUE(thread.isRunning());
    const auto before = Clock::now();
    thread.StopThread(L"test");
    EXPECT_LT(Clock::now() - before, std::chrono::seconds(5));
    EXPECT_FALSE(thread.isRunning());
    EXPECT_TRUE(thread.ExitRequested());
    EXPECT_EQ(thread.m_OnExitCalls.load(), 1);
    EXPECT_TRUE(thread.m_RunningInOnExit.load());
    thread.StopThread(L"again");
    EXPECT_EQ(thread.m_OnExitCalls.load(), 1);
}

TEST(RunnableTest, NeverStartedThreadStopsAndDies) {
    CTestThread thread([](CTestThread&) {});
    thread.StopThread(nullptr);
    thread.StopThread(nullptr);
    EXPECT_FALSE(thread.isRunning());
    EXPECT_EQ(thread.m_OnExitCalls.load(), 0);
}

TEST(RunnableTest, StopFromAnotherThreadEndsALongWait) {
    std::atomic<bool> sawExit{false};
    CTestThread thread(
        [&sawExit](CTestThread& self) { sawExit = self.TestDestroy(60000, nullptr); });
    thread.start(50, true, 0);
    const auto before = Clock::now();
    std::thread stopper([&thread] { thread.StopThread(L"stopper"); });
    stopper.join();
    EXPECT_LT(Clock::now() - before, std::chrono::seconds(10));
    EXPECT_TRUE(sawExit.load());
    EXPECT_FALSE(thread.isRunning());
    EXPECT_EQ(thread.m_OnExitCalls.load(), 1);
}

TEST(RunnableTest, BodyThatEndsByItselfCountsAsStoppedOnlyAfterOnExit) {
    auto* thread = new CTestThread([](CTestThread&) {});
    std::atomic<bool> onExitDone{false};
    thread->m_OnExitExtra = [&onExitDone] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        onExitDone = true;
    };
    thread->start(50, false, 0);
    WaitUntilStopped(*thread);
    EXPECT_FALSE(thread->isRunning());
    EXPECT_TRUE(onExitDone.load());
    EXPECT_EQ(thread->m_OnExitCalls.load(), 1);
    delete thread;  // no StopThread first: the destructor joins
}

TEST(RunnableTest, AwakenEndsAWaitWithoutAnExitRequest) {
    std::atomic<int> phase{0};
    std::atomic<bool> firstWoken{false};
    std::atomic<bool> firstExit{true};
    std::atomic<bool> secondWoken{false};
    CTestThread thread([&](CTestThread& self) {
        bool woken = false;
        firstExit = self.TestDestroy(60000, &woken);
        firstWoken = woken;
        phase = 1;
        while (phase.load() != 2) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        // The wake came while the body was not waiting: the wait ends at once.
        self.TestDestroy(60000, &woken);
        secondWoken = woken;
        self.TestDestroy(60000, nullptr);
    });
    thread.start(50, true, 0);
    thread.Awaken();
    while (phase.load() != 1) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(firstWoken.load());
    EXPECT_FALSE(firstExit.load());
    EXPECT_TRUE(thread.isRunning());
    thread.Awaken();
    phase = 2;
    const auto before = Clock::now();
    thread.StopThread(nullptr);
    EXPECT_TRUE(secondWoken.load());
    EXPECT_LT(Clock::now() - before, std::chrono::seconds(10));
}

TEST(RunnableTest, PlainTestDestroyAndDeleteSeeTheExitRequest) {
    std::atomic<bool> beforeRequest{true};
    std::atomic<bool> afterRequest{false};
    std::atomic<bool> wakeKept{false};
    std::atomic<int> phase{0};
    CTestThread thread([&](CTestThread& self) {
        self.Awaken();
        beforeRequest = self.TestDestroy();
        bool woken = false;
        self.TestDestroy(0, &woken);
        wakeKept = woken;  // the plain test left the wake alone
        phase = 1;
        self.TestDestroy(60000, nullptr);
        afterRequest = self.TestDestroy();
    });
    thread.start(50, true, 0);
    while (phase.load() != 1) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const auto before = Clock::now();
    wxThread::ExitCode code = reinterpret_cast<wxThread::ExitCode>(1);
    EXPECT_EQ(thread.Delete(&code), wxTHREAD_NO_ERROR);
    EXPECT_LT(Clock::now() - before, std::chrono::seconds(10));
    EXPECT_EQ(code, nullptr);
    EXPECT_FALSE(beforeRequest.load());
    EXPECT_TRUE(wakeKept.load());
    EXPECT_TRUE(afterRequest.load());
    EXPECT_FALSE(thread.isRunning());
    EXPECT_EQ(thread.m_OnExitCalls.load(), 1);
}

TEST(RunnableTest, TimedWaitWithoutWakeRunsOutQuietly) {
    std::atomic<bool> woken{true};
    std::atomic<bool> exit{true};
    std::atomic<long long> waitedMsec{0};
    CTestThread thread([&](CTestThread& self) {
        const auto before = Clock::now();
        bool w = true;
        exit = self.TestDestroy(30, &w);
        woken = w;
        waitedMsec =
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - before).count();
    });
    thread.start(50, true, 0);
    WaitUntilStopped(thread);
    EXPECT_FALSE(exit.load());
    EXPECT_FALSE(woken.load());
    EXPECT_GE(waitedMsec.load(), 29);
}

TEST(RunnableTest, SecondStartIsRefused) {
    CTestThread thread([](CTestThread&) {});
    thread.start(50, true, 0);
    thread.StopThread(nullptr);
    NorvCore::TakeOperatorLogLines();
    thread.start(50, true, 0);
    EXPECT_FALSE(thread.isRunning());
    const auto lines = NorvCore::TakeOperatorLogLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("started before"), std::string::npos) << lines[0];
    EXPECT_EQ(thread.m_OnExitCalls.load(), 1);
}

TEST(RunnableTest, ThreadLogLinesArriveAtOnce) {
    NorvCore::TakeOperatorLogLines();
    std::vector<std::string> seenOnThread;
    NorvCore::CRunnable* current = nullptr;
    CTestThread thread([&](CTestThread&) {
        current = NorvCore::CRunnable::Current();
        wxLogError("from the SSL side %d", 7);
        seenOnThread = NorvCore::TakeOperatorLogLines();
    });
    thread.m_OnExitExtra = [] { wxLogWarning("leaving"); };
    thread.start(50, true, 0);
    thread.StopThread(nullptr);
    EXPECT_EQ(current, &thread);
    EXPECT_EQ(NorvCore::CRunnable::Current(), nullptr);
    ASSERT_EQ(seenOnThread.size(), 1u);
    EXPECT_EQ(seenOnThread[0], "Error: from the SSL side 7");
    // What OnExit logged is there once StopThread has returned.
    const auto lines = NorvCore::TakeOperatorLogLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "Warning: leaving");
}

TEST(RunnableTest, ExceptionInTheBodyIsLoggedAndOnExitStillRuns) {
    NorvCore::TakeOperatorLogLines();
    CTestThread thread([](CTestThread&) { throw std::runtime_error("broken"); });
    thread.start(50, true, 0);
    thread.StopThread(nullptr);
    EXPECT_EQ(thread.m_OnExitCalls.load(), 1);
    const auto lines = NorvCore::TakeOperatorLogLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "Error: Thread CTestThreadWithALongName ended by an exception: broken");
}

TEST(RunnableTest, ConstructorFlagsShapeTheThread) {
    std::atomic<bool> termBlocked{false};
    std::atomic<bool> segvBlocked{true};
    char name[32] = "";
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    cpu_set_t allowed;
    ASSERT_EQ(sched_getaffinity(0, sizeof(allowed), &allowed), 0);
    int cpu = 0;
    while (!CPU_ISSET(cpu, &allowed)) {
        ++cpu;
    }
    CTestThread thread(
        [&](CTestThread&) {
            sigset_t mask;
            pthread_sigmask(SIG_BLOCK, nullptr, &mask);
            termBlocked = sigismember(&mask, SIGTERM) == 1;
            segvBlocked = sigismember(&mask, SIGSEGV) == 1;
            pthread_getname_np(pthread_self(), name, sizeof(name));
            pthread_getaffinity_np(pthread_self(), sizeof(cpus), &cpus);
        },
        true, cpu, true);
    thread.start(50, true, 0);
    thread.StopThread(nullptr);
    EXPECT_TRUE(termBlocked.load());
    EXPECT_FALSE(segvBlocked.load());
    EXPECT_STREQ(name, "CTestThreadWith");
    EXPECT_EQ(CPU_COUNT(&cpus), 1);
    EXPECT_TRUE(CPU_ISSET(cpu, &cpus));

    // Without the flags the thread keeps the process's defaults.
    std::atomic<bool> plainTermBlocked{true};
    CTestThread plain([&](CTestThread&) {
        sigset_t mask;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        plainTermBlocked = sigismember(&mask, SIGTERM) == 1;
    });
    plain.start(50, true, 0);
    plain.StopThread(nullptr);
    EXPECT_FALSE(plainTermBlocked.load());
}

TEST(RunnableTest, DomShouldExitOnTheThreadSeesStopThread) {
    NorvCore::CDom dom(":memory:");
    std::atomic<int> rounds{0};
    std::atomic<bool> lastWoken{false};
    CTestThread thread([&](CTestThread&) {
        bool woken = false;
        while (!dom.ShouldExit(60000, &woken)) {
            ++rounds;
        }
        lastWoken = woken;
    });
    thread.start(50, true, 0);
    const auto before = Clock::now();
    thread.StopThread(nullptr);
    EXPECT_LT(Clock::now() - before, std::chrono::seconds(10));
    EXPECT_EQ(rounds.load(), 0);
    EXPECT_TRUE(lastWoken.load());
    EXPECT_FALSE(dom.ShouldExit(0, nullptr));  // the agent itself goes on
}

TEST(RunnableTest, DomExitRequestEndsShouldExitOnTheThread) {
    NorvCore::CDom dom(":memory:");
    std::atomic<bool> ended{false};
    CTestThread thread([&](CTestThread&) {
        while (!dom.ShouldExit(60000, nullptr)) {
        }
        ended = true;
    });
    thread.start(50, true, 0);
    dom.RequestExit();
    WaitUntilStopped(thread);
    EXPECT_TRUE(ended.load());
    EXPECT_FALSE(thread.ExitRequested());
}

}  // namespace
