// Proxy manager on WinHTTP: discovery from the Internet Explorer settings (WPAD, PAC, manual proxy)
// and the default WinHTTP configuration, a HEAD probe through each candidate, and credentials from
// the caller, the credential store or the credential dialog. Lives for one lookup.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

#include "proxy/ProxyManagerImpl.h"

namespace QRVL::ProxyManager {

struct ProxyProbe;

struct ProxyCandidate {
    std::string server;
    std::string port;
    bool operator==(const ProxyCandidate&) const = default;
};

class ProxyManagerImplWin : public ProxyManagerImpl {
public:
    ProxyManagerImplWin();
    ~ProxyManagerImplWin() override;

    PMStatus GetProxyInfo(UserData* in, ProxyInfo* out) override;

    // Discovery: the raw proxy list for the request URL; PM_STATUS_OK, _NO_PROXY_CONFIGURATION or _ERROR.
    PMStatus DiscoverProxyConfiguration(std::wstring& proxyList);
    bool AutoDetectProxyInfo(bool autoDetect, const std::wstring& pacUrl, std::wstring& proxyList);
    // Reduces the list to the request URL's scheme and splits it into candidates; clears the list on failure.
    bool FetchServerInfo(std::wstring& proxyList, std::vector<ProxyCandidate>& candidates);
    bool GetServerTypeStrAndDefaultPort(const std::wstring& url, std::wstring& serverType, std::string& defaultPort);
    bool ExtractServerData(const std::wstring& serverType, std::wstring& proxyList);
    bool ParseServerAndPortInfo(const std::string& defaultPort, const std::wstring& proxyList,
                                std::vector<ProxyCandidate>& candidates);

    // Authentication against the current candidate.
    PMStatus CheckAuthenticatingProxy(bool silentMode);
    bool OpenRequest(ProxyProbe& probe);
    bool SendRequest(ProxyProbe& probe);
    bool QueryAuthScheme(ProxyProbe& probe, DWORD& supported);
    bool GetHTTPStatusCode(ProxyProbe& probe, DWORD& status);
    PMStatus ShowCredentialDialog(const std::string& target, std::wstring& user, std::wstring& password);
    bool StoreCredentials(const std::string& target, const std::wstring& user, const std::wstring& password);
    bool LoadCredentials(const std::string& target, std::wstring& user, std::wstring& password);

    // WinHTTP scheme to use for a supported-schemes mask, and the scheme reported to the caller.
    static DWORD ChooseAuthScheme(DWORD supported);
    static uint32_t ReportedAuthScheme(DWORD supported);
    // QRVL_QRVL_WPAD_PROXY_CHECK: "FALSE" (any case) turns WPAD off; anything else leaves it on.
    static bool WpadCheckEnabled();

    void SetRequestUrl(const std::string& url) { requestUrl_ = url; }
    void SetProxy(const std::string& server, const std::string& port);
    void SetCredentials(const std::string& user, const std::string& password);
    const std::string& RequestUrl() const { return requestUrl_; }
    const std::string& ProxyServer() const { return proxyServer_; }
    const std::string& ProxyPort() const { return proxyPort_; }
    const std::string& User() const { return user_; }
    const std::string& Password() const { return password_; }
    uint32_t AuthScheme() const { return authScheme_; }
    const std::wstring& ProxyString() const { return proxyString_; }

private:
    PMStatus Report(PMStatus status, ProxyInfo* out);
    void FillRecord(ProxyInfo* out, bool withCredentials);

    std::string requestUrl_;
    std::string proxyServer_;
    std::string proxyPort_;
    std::string user_;
    std::string password_;
    uint32_t authScheme_ = PROXY_AUTH_NONE;
    std::wstring proxyString_;
};

} // namespace QRVL::ProxyManager
