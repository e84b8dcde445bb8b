// A small HTTP/1.1 file server on a loopback port for the NetSession double: either the client's local
// serving endpoint ("/api?function=serveFile&cid=0&url=<origin URL>") or a plain origin. Both serve the
// file of the requested URL's last path segment from one folder, with byte ranges; every connection is
// closed after its answer.
#pragma once

#include <winsock2.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qvdouble {

class FileServer {
public:
    enum class Kind { ServingEndpoint, Origin };
    using Journal = std::function<void(const std::string&)>;

    FileServer(Kind kind, std::wstring root, Journal journal);
    ~FileServer();
    FileServer(const FileServer&) = delete;
    FileServer& operator=(const FileServer&) = delete;

    // Listens on 127.0.0.1:port (exclusively); false when the port cannot be had.
    bool start(uint16_t port);
    // Closes the listener and every open connection and waits for all threads.
    void stop();
    enum class Failure { None = 0, Unavailable = 1, CutShort = 2 };
    // Unavailable answers every request with 503; CutShort closes each answer after kCutAfter bytes of
    // its body, as a client that stops serving half-way.
    void setFailure(Failure failure) { failure_ = failure; }
    static constexpr uint64_t kCutAfter = 65536;

private:
    struct Request {
        std::string method;
        std::string target;
        std::string range;
    };

    void acceptLoop();
    void serve(SOCKET client);
    bool readRequest(SOCKET client, Request& request);
    void answer(SOCKET client, const Request& request);
    // The file name an endpoint or origin request stands for, or empty when the request is malformed.
    std::string fileNameFor(const std::string& target, std::string& originUrl) const;

    const Kind kind_;
    const std::wstring root_;
    const Journal journal_;
    std::atomic<Failure> failure_{Failure::None};
    std::atomic<bool> stopping_{false};
    SOCKET listener_ = INVALID_SOCKET;
    std::thread acceptor_;
    std::mutex lock_;
    std::vector<SOCKET> clients_;
    std::vector<std::thread> workers_;
};

} // namespace qvdouble
