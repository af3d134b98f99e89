// CSslSocketServer: the process's SSL request socket (protocol in
// SslSocketProtocol.h). A thread of its own accepts clients and reads their
// requests into one queue; the key service takes them from there through
// norvi_get_ssl_request and answers through norvi_ssl_response.
//
// Routing: a request handed out carries a token of the server in place of
// the client's requestContext; the answer that comes back with that token
// goes to the client that sent the request, with the client's own context
// restored. A client that has gone loses its answers and nothing else.
//
// A malformed submission (a length outside the bounds, a frame cut short by
// the client's hang-up) is counted as dropped and ends that client's
// connection; other clients go on. The queue and the open routes are bounded:
// a request beyond them gets a failure response at once.
//
// Threads: m_Lock guards the queue, the routes, the counters and m_LastError;
// the clients' read state belongs to the server thread; each client's socket
// is written under its own lock.
#pragma once

#include <stdint.h>

#include <array>
#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "driver/linux/SslFrameReader.h"
#include "driver/linux/SslSocketProtocol.h"

namespace NORVI {

class CSslSocketServer {
public:
    struct Counters {
        uint64_t m_Clients = 0;   // connections accepted
        uint64_t m_Requests = 0;  // requests queued
        uint64_t m_Answered = 0;  // responses delivered to their client
        uint64_t m_Orphaned = 0;  // responses whose client had gone
        uint64_t m_Refused = 0;   // requests answered with a failure: queue or routes full
        uint64_t m_Dropped = 0;   // malformed or truncated submissions
    };

    enum class TakeResult { Request, Woken, Stopped };

    // A server listening at path (a stale socket file there is replaced);
    // null with the reason in error.
    static std::unique_ptr<CSslSocketServer> Listen(const std::string& path, std::string& error);
    // Stops the thread, closes every connection and removes the socket file.
    ~CSslSocketServer();
    CSslSocketServer(const CSslSocketServer&) = delete;
    CSslSocketServer& operator=(const CSslSocketServer&) = delete;

    const std::string& Path() const { return m_Path; }
    // Ends the server thread, closes the connections and removes the socket
    // file; waiters in Take return Stopped. Called by one thread, once.
    void Stop();

    // Waits for a request: fills header (80 bytes) and data. Ends early with
    // Woken when wakeFd (if >= 0) is readable, Stopped when the server stops.
    TakeResult Take(uint8_t* header, std::vector<uint8_t>& data, int wakeFd);
    // Delivers a response (72 bytes and more). 0, or an errno value with the
    // reason in error when the response is malformed or its token unknown.
    int Respond(const void* response, size_t size, std::string& error);

    Counters GetCounters() const;
    // Why the last client was dropped; empty when none was.
    std::string LastError() const;

private:
    struct Client;
    struct Route {
        std::shared_ptr<Client> m_Client;
        std::array<uint8_t, kSslContextSize> m_Context;
        std::chrono::steady_clock::time_point m_Since;
    };
    struct Pending {
        std::array<uint8_t, kSslHeaderSize> m_Header;
        std::vector<uint8_t> m_Data;
    };

    CSslSocketServer() = default;
    void Run();
    void Accept();
    // Reads what the client sent; false when the client is to be closed.
    bool ReadFrom(Client& client, const std::shared_ptr<Client>& shared);
    // Queues a request or answers it with a failure when full.
    void Submit(const std::shared_ptr<Client>& client, const uint8_t* frame, size_t length);
    void Drop(const std::string& reason);
    static int Send(Client& client, const uint8_t* message, size_t length);

    std::string m_Path;
    int m_ListenFd = -1;
    int m_StopFd = -1;   // eventfd: the server is stopping
    int m_QueueFd = -1;  // eventfd: readable while m_Queue is not empty
    std::thread m_Thread;

    mutable std::mutex m_Lock;
    std::deque<Pending> m_Queue;                     // m_Lock
    std::map<uint64_t, Route> m_Routes;              // m_Lock
    uint64_t m_NextToken = 1;                        // m_Lock
    Counters m_Counters;                             // m_Lock
    std::string m_LastError;                         // m_Lock
    std::vector<std::shared_ptr<Client>> m_Clients;  // server thread
};

}  // namespace NORVI
