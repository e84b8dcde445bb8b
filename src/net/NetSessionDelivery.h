// Delivery of a download through the local NetSession client: the session that a download holds from
// the moment its source URL is chosen until its final clean-up, and the calls that the download's own
// operations make on it. A request that does not ask for content delivery never loads the client's module.
#pragma once

#include <cstdint>
#include <memory>

#include "common/Win32Raii.h"
#include "net/NetSession.h"

class Download;
class DownloadRequest;

namespace qv {

// The local serving form of a URL is this prefix followed by the origin URL.
constexpr wchar_t kLocalServePrefix[] = L"http://127.0.0.1:9421/api?function=serveFile&cid=0&url=";

class NetSessionDelivery {
public:
    // Application name under which a download's sessions are made.
    static constexpr const char* kApplication = "QVDLM";
    // A session that keeps reporting that a proxy needs credentials is given up after this many rounds.
    static constexpr int kMaxProxyAuthRounds = 10;
    // Polls of a busy session before it is used anyway, and the pause between them.
    static constexpr int kMaxBusyPolls = 500;
    static constexpr DWORD kBusyPollMs = 20;

    NetSessionDelivery() = default;
    ~NetSessionDelivery();
    NetSessionDelivery(const NetSessionDelivery&) = delete;
    NetSessionDelivery& operator=(const NetSessionDelivery&) = delete;

    // The URL the source stage opens for the download's current block: its local serving form when a
    // session is up, else the plain one. Clears the download's status, replaces any earlier session,
    // publishes what went wrong, and switches the request to plain HTTP (not stored) when no usable
    // session can be made. Never fails.
    const wchar_t* initUrl(Download& download);

    bool active();
    // The session's last error, 0 without a session.
    unsigned lastError();

    void pause();
    // Result of the session's resume: 0 (also without a session) means it runs.
    unsigned resume();
    // Asks the session to stop; a non-zero answer means the session handled the abort itself.
    unsigned abort(bool discard);

    // End of the download, once its final state is known: a completed (0) or aborted download releases
    // its served files, any other pauses the session; then the session is stopped and destroyed.
    void finish(DownloadRequest& request, uint32_t finalState);
    // Stops and destroys the session, if any.
    void shutdown();

    // The reader found the local serving interface failing: the download goes on over plain HTTP.
    static void fallBackToHttp(Download& download);

private:
    std::unique_ptr<NetSession> takeSession();

    CriticalSection lock_;
    std::unique_ptr<NetSession> session_;
};

// Tells the session that every block file of the request is no longer needed: one release per block
// with its origin URL (UTF-8), or a single release with null for a one-file package. The request's
// block index is back at 0 afterwards.
void releaseServedFiles(NetSession& session, DownloadRequest& request);

} // namespace qv
