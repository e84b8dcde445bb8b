// Does the candidate proxy want credentials, and which ones does it accept? Found out with a HEAD
// request through the proxy, retried with credentials after each 407.

#include "proxy/ProxyLogger.h"
#include "proxy/ProxyManagerImplWin.h"
#include "proxy/ProxyText.h"
#include "proxy/WinHttpHandle.h"

namespace QRVL::ProxyManager {

namespace {

constexpr DWORD kProxyAuthRequired = 407;
// Each round either needs a new answer from the user or follows a resend demand of WinHTTP; a proxy
// that keeps demanding resends must not hold the caller forever.
constexpr unsigned kMaxRounds = 20;

// Asks for the root of the host, not the URL's path: only the proxy's answer matters.
bool OpenHeadRequest(ProxyProbe& probe, bool secure)
{
    probe.secure = secure;
    probe.request.reset(WinHttpOpenRequest(probe.connection.get(), L"HEAD", nullptr, nullptr, WINHTTP_NO_REFERER,
                                           WINHTTP_DEFAULT_ACCEPT_TYPES, secure ? WINHTTP_FLAG_SECURE : 0));
    return probe.request.valid();
}

bool SetAutoLogonPolicy(HINTERNET request, DWORD policy)
{
    return WinHttpSetOption(request, WINHTTP_OPTION_AUTOLOGON_POLICY, &policy, sizeof policy) != FALSE;
}

} // namespace

DWORD ProxyManagerImplWin::ChooseAuthScheme(DWORD supported)
{
    // Negotiate is never chosen: it could hand out the logged-on user's identity.
    if (supported & (WINHTTP_AUTH_SCHEME_NEGOTIATE | WINHTTP_AUTH_SCHEME_NTLM))
        return WINHTTP_AUTH_SCHEME_NTLM;
    if (supported & WINHTTP_AUTH_SCHEME_DIGEST)
        return WINHTTP_AUTH_SCHEME_DIGEST;
    if (supported & WINHTTP_AUTH_SCHEME_BASIC)
        return WINHTTP_AUTH_SCHEME_BASIC;
    return 0;
}

uint32_t ProxyManagerImplWin::ReportedAuthScheme(DWORD supported)
{
    if (supported & (WINHTTP_AUTH_SCHEME_NEGOTIATE | WINHTTP_AUTH_SCHEME_NTLM))
        return PROXY_AUTH_NTLM;
    if (supported & WINHTTP_AUTH_SCHEME_DIGEST)
        return PROXY_AUTH_DIGEST;
    if (supported & WINHTTP_AUTH_SCHEME_BASIC)
        return PROXY_AUTH_BASIC;
    return PROXY_AUTH_NONE;
}

bool ProxyManagerImplWin::OpenRequest(ProxyProbe& probe)
{
    Log(LOG_DEBUG, "Performing 'OpenRequest' ...");
    probe.session.reset(
        WinHttpOpen(L"WinHTTP/1.0", WINHTTP_ACCESS_TYPE_NAMED_PROXY, proxyString_.c_str(), WINHTTP_NO_PROXY_BYPASS, 0));
    if (!probe.session) {
        ProxyLogger::LogApiFailure("WinHttpOpen");
        return false;
    }

    const std::wstring url = Widen(requestUrl_);
    wchar_t host[256] = {};
    wchar_t path[2048] = {};
    URL_COMPONENTS parts = {};
    parts.dwStructSize = sizeof parts;
    parts.lpszHostName = host;
    parts.dwHostNameLength = static_cast<DWORD>(std::size(host));
    parts.lpszUrlPath = path;
    parts.dwUrlPathLength = static_cast<DWORD>(std::size(path));
    if (!WinHttpCrackUrl(url.c_str(), 0, 0, &parts)) {
        ProxyLogger::LogApiFailure("WinHttpCrackUrl");
        probe.session.reset();
        return false;
    }

    // The URL's own port does not matter: any answer through the proxy tells what the proxy wants.
    const bool secure = parts.nScheme == INTERNET_SCHEME_HTTPS;
    probe.connection.reset(WinHttpConnect(probe.session.get(), host,
                                          secure ? INTERNET_DEFAULT_HTTPS_PORT : INTERNET_DEFAULT_HTTP_PORT, 0));
    if (!probe.connection) {
        ProxyLogger::LogApiFailure("WinHttpConnect");
        probe.session.reset();
        return false;
    }

    if (!OpenHeadRequest(probe, secure)) {
        ProxyLogger::LogApiFailure("WinHttpOpenRequest");
        probe.connection.reset();
        probe.session.reset();
        return false;
    }
    return true;
}

bool ProxyManagerImplWin::SendRequest(ProxyProbe& probe)
{
    Log(LOG_DEBUG, "Performing 'SendRequest' ...");
    if (!WinHttpSendRequest(probe.request.get(), WINHTTP_NO_ADDITIONAL_HEADERS, 0, WINHTTP_NO_REQUEST_DATA, 0, 0, 0)) {
        ProxyLogger::LogApiFailure("WinHttpSendRequest");
        return false;
    }
    if (!WinHttpReceiveResponse(probe.request.get(), nullptr)) {
        ProxyLogger::LogApiFailure("WinHttpReceiveResponse");
        return false;
    }
    return true;
}

bool ProxyManagerImplWin::QueryAuthScheme(ProxyProbe& probe, DWORD& supported)
{
    Log(LOG_DEBUG, "Performing 'QueryAuthScheme' ...");
    DWORD first = 0;
    DWORD target = 0;
    supported = 0;
    if (!WinHttpQueryAuthSchemes(probe.request.get(), &supported, &first, &target)) {
        ProxyLogger::LogApiFailure("WinHttpQueryAuthSchemes");
        supported = 0;
        return false;
    }
    Log(LOG_DEBUG, "Proxy server supports AuthScheme:%lu", static_cast<unsigned long>(supported));
    return true;
}

bool ProxyManagerImplWin::GetHTTPStatusCode(ProxyProbe& probe, DWORD& status)
{
    Log(LOG_DEBUG, "Performing 'GetHTTPStatusCode' ...");
    status = 0;
    DWORD size = sizeof status;
    if (!WinHttpQueryHeaders(probe.request.get(), WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER,
                             WINHTTP_HEADER_NAME_BY_INDEX, &status, &size, WINHTTP_NO_HEADER_INDEX)) {
        ProxyLogger::LogApiFailure("WinHttpQueryHeaders");
        return false;
    }
    Log(LOG_DEBUG, "Received HTTP status:%lu", static_cast<unsigned long>(status));
    return true;
}

PMStatus ProxyManagerImplWin::CheckAuthenticatingProxy(bool silentMode)
{
    Log(LOG_INFO, "Performing 'CheckAuthenticatingProxy' ...");
    DWORD supported = 0;
    if (requestUrl_.empty() || proxyString_.empty()) {
        Log(LOG_ERROR, "URL or Proxy server is empty!");
        return PM_STATUS_INVALID_INPUT;
    }

    ProxyProbe probe;
    if (!OpenRequest(probe))
        return PM_STATUS_ERROR;

    // Never hand the logged-on user's identity to a proxy without being asked.
    Log(LOG_DEBUG, "Setting security level high for WinHTTP communications.");
    if (!SetAutoLogonPolicy(probe.request.get(), WINHTTP_AUTOLOGON_SECURITY_LEVEL_HIGH)) {
        ProxyLogger::LogApiFailure("WinHttpSetOption");
        return PM_STATUS_ERROR;
    }

    std::wstring user;
    std::wstring password;
    bool storeOnSuccess = false;
    bool storeConsulted = false;
    if (!user_.empty()) {
        Log(LOG_INFO, "Using invoker provided proxy credentials with user:%s", user_.c_str());
        user = Widen(user_);
        password = Widen(password_);
        storeOnSuccess = true;
    } else if (LoadCredentials(proxyServer_, user, password)) {
        Log(LOG_INFO, "Using cached credentials for proxy server:%s  user:%s", proxyServer_.c_str(),
            Narrow(user).c_str());
        storeConsulted = true;
    }

    if (!user.empty()) {
        Log(LOG_INFO, "Detecting auth scheme for the available credentials ...");
        if (SendRequest(probe))
            QueryAuthScheme(probe, supported);
    }

    PMStatus result = PM_STATUS_ERROR;
    unsigned round = 0;
    for (; round < kMaxRounds; ++round) {
        if (supported != 0) {
            const DWORD scheme = ChooseAuthScheme(supported);
            Log(LOG_DEBUG, "Trying %lu authentication scheme although proxy server supports %lu authentication scheme",
                static_cast<unsigned long>(scheme), static_cast<unsigned long>(supported));
            if (!WinHttpSetCredentials(probe.request.get(), WINHTTP_AUTH_TARGET_PROXY, scheme, user.c_str(),
                                       password.c_str(), nullptr)) {
                ProxyLogger::LogApiFailure("WinHttpSetCredentials");
                break;
            }
        }

        SetLastError(ERROR_SUCCESS);
        if (!SendRequest(probe))
            break;
        if (GetLastError() == ERROR_WINHTTP_RESEND_REQUEST)
            continue;

        DWORD status = 0;
        if (!GetHTTPStatusCode(probe, status))
            break;

        if (status != kProxyAuthRequired) {
            user_ = Narrow(user);
            Wipe(password_);
            password_ = Narrow(password);
            if (storeOnSuccess)
                StoreCredentials(proxyServer_, user, password);
            authScheme_ = ReportedAuthScheme(supported);
            result = PM_STATUS_OK;
            break;
        }

        QueryAuthScheme(probe, supported);
        if (!SetAutoLogonPolicy(probe.request.get(), WINHTTP_AUTOLOGON_SECURITY_LEVEL_MEDIUM))
            ProxyLogger::LogApiFailure("WinHttpSetOption");

        bool missing = true;
        if (!storeConsulted)
            missing = !LoadCredentials(proxyServer_, user, password);
        if (missing) {
            if (silentMode) {
                authScheme_ = ReportedAuthScheme(supported);
                Log(LOG_ERROR, "PM_STATUS_SILENT_MODE_ERROR - Application running under Silent Mode and it requires "
                               "proxy server credentials.");
                result = PM_STATUS_SILENT_MODE_ERROR;
                break;
            }
            const PMStatus answer = ShowCredentialDialog(proxyServer_, user, password);
            if (answer != PM_STATUS_OK) {
                result = answer;
                break;
            }
        }
        // Only the caller's own credentials are kept for next time.
        storeOnSuccess = false;
        storeConsulted = true;

        // WinHTTP may offer Basic credentials only once per request (Wine does): new credentials go
        // out on a fresh request over the same connection.
        if (!OpenHeadRequest(probe, probe.secure)) {
            ProxyLogger::LogApiFailure("WinHttpOpenRequest");
            break;
        }
        if (!SetAutoLogonPolicy(probe.request.get(), WINHTTP_AUTOLOGON_SECURITY_LEVEL_MEDIUM))
            ProxyLogger::LogApiFailure("WinHttpSetOption");
    }
    if (round == kMaxRounds)
        Log(LOG_ERROR, "Proxy server kept refusing after %u attempts.", kMaxRounds);
    Wipe(password);
    return result;
}

} // namespace QRVL::ProxyManager
