#include "net/NetSessionDelivery.h"

#include <cwchar>
#include <optional>
#include <string>
#include <utility>

#include "Download.h"
#include "DownloadRequest.h"
#include "QvDLMCodes.h"
#include "log/EventPublisherImpl.h"

namespace qv {

namespace {

using namespace qvdlm;

// Session errors with a reaction of their own.
constexpr unsigned kSessionNetworkError = 5;
constexpr unsigned kSessionDiskFull = 6;
constexpr unsigned kSessionProxyAuth = 10;
constexpr unsigned kSessionCacheFull = 12;
constexpr unsigned kSessionIgnorable = 13;

constexpr size_t kServePrefixLength = std::size(kLocalServePrefix) - 1;

std::optional<std::string> utf8(const wchar_t* text)
{
    if (!text)
        return std::nullopt;
    const int length = static_cast<int>(std::wcslen(text));
    std::string out;
    if (length == 0)
        return out;
    const int bytes = WideCharToMultiByte(CP_UTF8, 0, text, length, nullptr, 0, nullptr, nullptr);
    if (bytes <= 0)
        return out;
    out.resize(static_cast<size_t>(bytes));
    WideCharToMultiByte(CP_UTF8, 0, text, length, out.data(), bytes, nullptr, nullptr);
    return out;
}

const char* textOrNull(const std::optional<std::string>& text) { return text ? text->c_str() : nullptr; }

// The first entry of the request's query list, which the session takes as its reporting parameters.
const wchar_t* firstQuery(DownloadRequest& request)
{
    const WStringList& queries = request.getQueries();
    return queries.empty() ? nullptr : queries.front().c_str();
}

// A session that reports itself busy twice in a row is paused until it says it is done or leaves the
// busy state.
void settleBusySession(NetSession& session)
{
    if (session.getState() != AkamaiNetSession::kStateBusy || session.getState() != AkamaiNetSession::kStateBusy)
        return;
    for (int poll = 0; poll < NetSessionDelivery::kMaxBusyPolls; ++poll) {
        if (session.pause() == AkamaiNetSession::kAllOnes)
            return;
        if (session.getState() != AkamaiNetSession::kStateBusy)
            return;
        Sleep(NetSessionDelivery::kBusyPollMs);
    }
}

enum class ErrorReaction { UseSession, NewSession };

// Reports why a session did not start; the answer says whether to go on with it.
ErrorReaction reactToStartFailure(Download& download, unsigned error)
{
    switch (error) {
    case kSessionNetworkError:
        publishEvent(&download, event::StatusMessage, msg::NetworkError);
        return ErrorReaction::UseSession;
    case kSessionDiskFull:
    case kSessionCacheFull:
        publishEvent(&download, event::StatusMessage, msg::OutOfDiskSpace);
        return ErrorReaction::UseSession;
    case kSessionProxyAuth:
        // A subscriber is expected to supply proxy credentials while handling the message.
        download.setStatus(status::ProxyAuthRequired);
        publishEvent(&download, event::StatusMessage, msg::ProxyNeedAuthentication);
        return ErrorReaction::NewSession;
    case kSessionIgnorable:
        return ErrorReaction::UseSession;
    default: {
        wchar_t line[256];
        std::swprintf(line, std::size(line),
                      L"DownloadImp::initUrl: createAkamaiNetSession failed. net session error: %d",
                      static_cast<int>(error));
        publishText(&download, line, event::Information);
        publishEvent(&download, event::Error, error);
        return ErrorReaction::UseSession;
    }
    }
}

} // namespace

NetSessionDelivery::~NetSessionDelivery() { shutdown(); }

std::unique_ptr<NetSession> NetSessionDelivery::takeSession()
{
    CsLock hold(lock_);
    return std::move(session_);
}

const wchar_t* NetSessionDelivery::initUrl(Download& download)
{
    DownloadRequest* request = download.getRequest();
    download.setStatus(status::None);
    shutdown();
    if (!request)
        return nullptr;

    // The session is set up here, out of reach of the other operations, and published when usable.
    std::unique_ptr<NetSession> session;
    int proxyRounds = 0;
    while (request->getUseAkamai()) {
        session.reset();
        const std::optional<std::string> content = utf8(request->getUrl(false));
        const std::optional<std::string> query = utf8(firstQuery(*request));
        session = NetSession::create(kApplication, textOrNull(content), textOrNull(query));
        if (!session || session->getLastError() != 0) {
            session.reset();
            download.setUseAkamai(false, false);
            continue;
        }
        if (session->resume() != AkamaiNetSession::kAllOnes) {
            settleBusySession(*session);
            break;
        }
        if (reactToStartFailure(download, session->getLastError()) == ErrorReaction::UseSession)
            break;
        if (++proxyRounds >= kMaxProxyAuthRounds) {
            // Nobody supplied credentials: the plain source will meet the proxy itself.
            session.reset();
            download.setUseAkamai(false, false);
        }
    }

    if (!request->getUseAkamai() || !session)
        return request->getUrl(false);
    {
        CsLock hold(lock_);
        session_ = std::move(session);
    }
    return request->getUrl(true);
}

bool NetSessionDelivery::active()
{
    CsLock hold(lock_);
    return session_ != nullptr;
}

unsigned NetSessionDelivery::lastError()
{
    CsLock hold(lock_);
    return session_ ? session_->getLastError() : 0;
}

void NetSessionDelivery::pause()
{
    CsLock hold(lock_);
    if (session_)
        session_->pause();
}

unsigned NetSessionDelivery::resume()
{
    CsLock hold(lock_);
    return session_ ? session_->resume() : 0;
}

unsigned NetSessionDelivery::abort(bool discard)
{
    CsLock hold(lock_);
    return session_ ? session_->stop(discard) : 0;
}

void NetSessionDelivery::finish(DownloadRequest& request, uint32_t finalState)
{
    std::unique_ptr<NetSession> session = takeSession();
    if (!session)
        return;
    if (finalState == state::Completed || finalState == state::Aborted)
        releaseServedFiles(*session, request);
    else
        session->pause();
}

void NetSessionDelivery::shutdown()
{
    std::unique_ptr<NetSession> session = takeSession();
}

void NetSessionDelivery::fallBackToHttp(Download& download)
{
    // Stored, so that a restarted download does not go through the failing client again.
    download.setUseAkamai(false, true);
}

void releaseServedFiles(NetSession& session, DownloadRequest& request)
{
    const int32_t blocks = request.getBlockCount();
    if (blocks == 1) {
        session.release(nullptr);
        return;
    }
    // The serving form exists only while the request asks for delivery, which a fallback has turned off.
    const bool useAkamai = request.getUseAkamai();
    request.setUseAkamai(true);
    request.setBlockId(0);
    const wchar_t* url = request.getUrl(true);
    for (int32_t block = 0; url && block < blocks; ++block) {
        std::wstring origin = url;
        if (origin.compare(0, kServePrefixLength, kLocalServePrefix) == 0)
            origin.erase(0, kServePrefixLength);
        const std::optional<std::string> text = utf8(origin.c_str());
        session.release(textOrNull(text));
        url = request.nextBlock();
    }
    request.setUseAkamai(useAkamai);
    request.setBlockId(0);
}

} // namespace qv
