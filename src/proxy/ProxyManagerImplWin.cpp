#include "proxy/ProxyManagerImplWin.h"

#include "proxy/ProxyLogger.h"
#include "proxy/ProxyText.h"

namespace QRVL::ProxyManager {

namespace {

const char* OrEmpty(const char* text) { return text ? text : ""; }

void ReleaseStrings(ProxyInfo* out)
{
    HeapRelease(out->server);
    HeapRelease(out->serverPort);
    HeapRelease(out->user);
    HeapRelease(out->password);
}

} // namespace

ProxyManagerImplWin::ProxyManagerImplWin() = default;

ProxyManagerImplWin::~ProxyManagerImplWin()
{
    Wipe(password_);
}

void ProxyManagerImplWin::SetProxy(const std::string& server, const std::string& port)
{
    proxyServer_ = server;
    proxyPort_ = port;
    proxyString_ = Widen(server + ":" + port);
}

void ProxyManagerImplWin::SetCredentials(const std::string& user, const std::string& password)
{
    user_ = user;
    Wipe(password_);
    password_ = password;
}

PMStatus ProxyManagerImplWin::GetProxyInfo(UserData* in, ProxyInfo* out)
{
    Log(LOG_INFO, "Performing 'GetProxyInfo' API ...");
    if (CheckInput(in, out) != PM_STATUS_OK) {
        Log(LOG_ERROR, "Input data 'UserData.url' is NULL or empty!");
        return Report(PM_STATUS_INVALID_INPUT, out);
    }

    requestUrl_ = in->url;
    Log(LOG_INFO, "Input URL:%s", requestUrl_.c_str());
    if (in->user) {
        user_ = in->user;
        Log(LOG_INFO, "Input user:%s", user_.c_str());
    }
    if (in->password) {
        password_ = in->password;
        Log(LOG_INFO, "Input password:****");
    }

    std::wstring proxyList;
    PMStatus status = DiscoverProxyConfiguration(proxyList);
    if (status != PM_STATUS_OK)
        return Report(status, out);

    std::vector<ProxyCandidate> candidates;
    if (!FetchServerInfo(proxyList, candidates))
        return Report(PM_STATUS_ERROR, out);
    if (candidates.empty())
        return Report(PM_STATUS_OK, out);

    for (const ProxyCandidate& candidate : candidates) {
        SetProxy(candidate.server, candidate.port);
        Log(LOG_DEBUG, "Discovered proxy server information [server=%s port=%s]", proxyServer_.c_str(),
            proxyPort_.c_str());
        status = CheckAuthenticatingProxy(in->silentMode);
        if (status == PM_STATUS_OK) {
            if (user_.empty())
                Log(LOG_DEBUG, "No authenticating proxy server detected.");
            else
                Log(LOG_DEBUG, "Authenticating proxy server detected with credentials [user=%s password=****]",
                    user_.c_str());
            FillRecord(out, true);
            return Report(PM_STATUS_OK, out);
        }
        if (status == PM_STATUS_SILENT_MODE_ERROR)
            FillRecord(out, false);
    }

    Log(LOG_DEBUG, "No VALID proxy servers detected.");
    // A proxy named by an earlier silent-mode refusal stays only when the last candidate said the same.
    if (status != PM_STATUS_SILENT_MODE_ERROR) {
        ReleaseStrings(out);
        out->authScheme = PROXY_AUTH_NONE;
    }
    return Report(status, out);
}

void ProxyManagerImplWin::FillRecord(ProxyInfo* out, bool withCredentials)
{
    ReleaseStrings(out);
    out->server = HeapCopy(proxyServer_);
    out->serverPort = HeapCopy(proxyPort_);
    if (withCredentials) {
        out->user = HeapCopy(user_);
        out->password = HeapCopy(password_);
    }
    out->authScheme = authScheme_;
}

PMStatus ProxyManagerImplWin::Report(PMStatus status, ProxyInfo* out)
{
    Log(LOG_INFO, "PMStatus:%d", static_cast<int>(status));
    if (status == PM_STATUS_OK && out) {
        Log(LOG_INFO, "Output: [server=%s serverPort=%s user=%s password=**** authScheme=%lu]", OrEmpty(out->server),
            OrEmpty(out->serverPort), OrEmpty(out->user), static_cast<unsigned long>(out->authScheme));
    }
    return status;
}

} // namespace QRVL::ProxyManager
