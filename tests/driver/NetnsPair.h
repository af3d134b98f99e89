// Two network namespaces joined by a veth pair, with no route out: "host"
// (10.77.0.1, fd77::1), where the library runs, and "peer" (10.77.0.2 and
// 10.77.0.3, fd77::2), where scans and clients run. Made by the test and
// removed by it, also when it fails; processes are started with a time limit
// and killed by pid. The test thread enters the host namespace with Enter().
#pragma once

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace drivertest {

// Starts argv with its output to outputPath and its errors to /dev/null; the
// pid, or -1 when it could not start.
inline pid_t Spawn(const std::vector<std::string>& argv, const std::string& outputPath) {
    std::vector<char*> args;
    for (const std::string& arg : argv) {
        args.push_back(const_cast<char*>(arg.c_str()));
    }
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid;
    const int failed = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return failed == 0 ? pid : -1;
}

// Runs argv and kills it after timeoutMs. The exit status, or -1 when it
// could not run or was killed.
inline int RunProcess(const std::vector<std::string>& argv, int timeoutMs,
                      const std::string& outputPath = "/dev/null") {
    const pid_t pid = Spawn(argv, outputPath);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    int status = 0;
    while (pid > 0 && waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return pid > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A process left running (a server), killed by pid when the object goes.
class CBackground {
public:
    explicit CBackground(const std::vector<std::string>& argv) : m_Pid(Spawn(argv, "/dev/null")) {}
    ~CBackground() { Stop(SIGKILL); }
    // Ends it with the signal and waits for it.
    void Stop(int signal) {
        if (m_Pid > 0) {
            kill(m_Pid, signal);
            waitpid(m_Pid, nullptr, 0);
            m_Pid = -1;
        }
    }
    CBackground(const CBackground&) = delete;
    CBackground& operator=(const CBackground&) = delete;
    bool Started() const { return m_Pid > 0; }
    // Its process id, or -1 once stopped.
    pid_t Pid() const { return m_Pid; }

private:
    pid_t m_Pid;
};

class CNetnsPair {
public:
    CNetnsPair()
        : m_Host("vxhost" + std::to_string(getpid())), m_Peer("vxpeer" + std::to_string(getpid())) {
        if (geteuid() != 0) {
            m_Failure = "needs root (CAP_SYS_ADMIN, CAP_NET_ADMIN) to make network namespaces";
            return;
        }
        RemoveStale();
        m_Made = true;
        const std::vector<std::vector<std::string>> steps = {
            {"ip", "netns", "add", m_Host},
            {"ip", "netns", "add", m_Peer},
            {"ip", "-n", m_Host, "link", "add", "vxa", "type", "veth", "peer", "name", "vxb",
             "netns", m_Peer},
            {"ip", "-n", m_Host, "addr", "add", "10.77.0.1/24", "dev", "vxa"},
            {"ip", "-n", m_Host, "addr", "add", "fd77::1/64", "dev", "vxa", "nodad"},
            {"ip", "-n", m_Peer, "addr", "add", "10.77.0.2/24", "dev", "vxb"},
            {"ip", "-n", m_Peer, "addr", "add", "10.77.0.3/24", "dev", "vxb"},
            {"ip", "-n", m_Peer, "addr", "add", "fd77::2/64", "dev", "vxb", "nodad"},
            {"ip", "-n", m_Host, "link", "set", "vxa", "up"},
            {"ip", "-n", m_Host, "link", "set", "lo", "up"},
            {"ip", "-n", m_Peer, "link", "set", "vxb", "up"},
            {"ip", "-n", m_Peer, "link", "set", "lo", "up"},
        };
        for (const auto& step : steps) {
            if (RunProcess(step, 10000) != 0) {
                m_Failure = "could not make the test namespaces (" + step[0] + " " + step[1] + " " +
                            step[2] + " " + step[3] + " failed)";
                return;
            }
        }
    }
    ~CNetnsPair() {
        Leave();
        if (m_Made) {
            RunProcess({"ip", "netns", "del", m_Host}, 10000);
            RunProcess({"ip", "netns", "del", m_Peer}, 10000);
        }
    }
    CNetnsPair(const CNetnsPair&) = delete;
    CNetnsPair& operator=(const CNetnsPair&) = delete;

    // Empty when the namespaces stand; the reason otherwise.
    const std::string& Failure() const { return m_Failure; }
    const std::string& Host() const { return m_Host; }
    const std::string& Peer() const { return m_Peer; }

    // Moves the calling thread into a namespace (host or peer); false when it can't.
    bool Enter(const std::string& name) {
        if (m_Original < 0) {
            m_Original = ::open(("/proc/self/task/" + std::to_string(gettid()) + "/ns/net").c_str(),
                                O_RDONLY | O_CLOEXEC);
        }
        const int target = open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
        const bool entered = target >= 0 && setns(target, CLONE_NEWNET) == 0;
        if (target >= 0) {
            close(target);
        }
        return entered;
    }
    // Back to the namespace the thread came from.
    void Leave() {
        if (m_Original >= 0) {
            setns(m_Original, CLONE_NEWNET);
            close(m_Original);
            m_Original = -1;
        }
    }

    // argv run inside a namespace.
    static std::vector<std::string> In(const std::string& name, std::vector<std::string> argv) {
        argv.insert(argv.begin(), {"ip", "netns", "exec", name});
        return argv;
    }

private:
    // Namespaces of this kind left by a test process that died (a sanitizer
    // stops a process without unwinding): its pid is gone.
    static void RemoveStale() {
        DIR* const folder = opendir("/run/netns");
        while (const dirent* entry = folder != nullptr ? readdir(folder) : nullptr) {
            const std::string name = entry->d_name;
            const std::string digits = name.size() > 6 ? name.substr(6) : "";
            if ((name.rfind("vxhost", 0) == 0 || name.rfind("vxpeer", 0) == 0) && !digits.empty() &&
                digits.find_first_not_of("0123456789") == std::string::npos &&
                kill(static_cast<pid_t>(std::stol(digits)), 0) != 0 && errno == ESRCH) {
                RunProcess({"ip", "netns", "del", name}, 10000);
            }
        }
        if (folder != nullptr) {
            closedir(folder);
        }
    }

    std::string m_Host;
    std::string m_Peer;
    bool m_Made = false;
    std::string m_Failure;
    int m_Original = -1;
};

}  // namespace drivertest
