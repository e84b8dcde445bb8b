// Where the proxy list comes from: Internet Explorer settings (WPAD, PAC script, manual proxy), then
// the machine's default WinHTTP configuration. Bypass lists are only logged, never applied.

#include "proxy/ProxyLogger.h"
#include "proxy/ProxyManagerImplWin.h"
#include "proxy/ProxyText.h"
#include "proxy/WinHttpHandle.h"

namespace QRVL::ProxyManager {

namespace {

bool HasText(const wchar_t* text) { return text && *text; }

} // namespace

bool ProxyManagerImplWin::WpadCheckEnabled()
{
    wchar_t value[1024];
    const DWORD n = GetEnvironmentVariableW(L"QRVL_QRVL_WPAD_PROXY_CHECK", value, static_cast<DWORD>(std::size(value)));
    if (n == 0 || n >= std::size(value))
        return true;
    return !EqualsNoCase(value, L"FALSE");
}

PMStatus ProxyManagerImplWin::DiscoverProxyConfiguration(std::wstring& proxyList)
{
    Log(LOG_INFO, "Performing 'DiscoverProxyConfiguration' ...");
    Log(LOG_INFO, "Discovering proxy settings from Internet Explorer ...");
    proxyList.clear();

    WINHTTP_CURRENT_USER_IE_PROXY_CONFIG ie = {};
    if (!WinHttpGetIEProxyConfigForCurrentUser(&ie)) {
        ProxyLogger::LogApiFailure("WinHttpGetIEProxyConfigForCurrentUser");
        return PM_STATUS_ERROR;
    }
    const UniqueWinHttpString autoConfigUrl(ie.lpszAutoConfigUrl);
    const UniqueWinHttpString manualProxy(ie.lpszProxy);
    const UniqueWinHttpString bypass(ie.lpszProxyBypass);

    if (ie.fAutoDetect)
        Log(LOG_DEBUG, "AutoDetect:%d", static_cast<int>(ie.fAutoDetect));
    if (autoConfigUrl)
        Log(LOG_DEBUG, "AutoConfig URL:%s", Narrow(autoConfigUrl.get()).c_str());
    if (manualProxy)
        Log(LOG_DEBUG, "Proxy server list:%s", Narrow(manualProxy.get()).c_str());
    if (bypass)
        Log(LOG_DEBUG, "Bypass proxy server list:%s", Narrow(bypass.get()).c_str());

    if (ie.fAutoDetect) {
        if (WpadCheckEnabled()) {
            Log(LOG_INFO, "Discovering WDAP based proxy setting ... (this may take several seconds)");
            if (AutoDetectProxyInfo(true, std::wstring(), proxyList))
                return PM_STATUS_OK;
        } else {
            Log(LOG_INFO, "WDAP proxy check is disabled, skipping WPAD based proxy discovery.");
        }
    }

    if (HasText(autoConfigUrl.get()) && AutoDetectProxyInfo(false, autoConfigUrl.get(), proxyList))
        return PM_STATUS_OK;

    if (HasText(manualProxy.get())) {
        proxyList = manualProxy.get();
        return PM_STATUS_OK;
    }

    Log(LOG_INFO, "Unable to detect proxy information from IE settings. Trying to get proxy information using "
                  "default proxy configuration ...");
    WINHTTP_PROXY_INFO defaults = {};
    if (!WinHttpGetDefaultProxyConfiguration(&defaults)) {
        ProxyLogger::LogApiFailure("WinHttpGetDefaultProxyConfiguration");
        return PM_STATUS_ERROR;
    }
    const UniqueWinHttpString defaultProxy(defaults.lpszProxy);
    const UniqueWinHttpString defaultBypass(defaults.lpszProxyBypass);
    if (defaultBypass)
        Log(LOG_DEBUG, "Bypass proxy list:%s", Narrow(defaultBypass.get()).c_str());
    if (HasText(defaultProxy.get())) {
        Log(LOG_DEBUG, "Proxy server list:%s", Narrow(defaultProxy.get()).c_str());
        proxyList = defaultProxy.get();
        return PM_STATUS_OK;
    }
    Log(LOG_INFO, "Unable to detect proxy information from default proxy configuration");
    Log(LOG_INFO, "No proxy server configuration detected.");
    return PM_STATUS_NO_PROXY_CONFIGURATION;
}

bool ProxyManagerImplWin::AutoDetectProxyInfo(bool autoDetect, const std::wstring& pacUrl, std::wstring& proxyList)
{
    Log(LOG_INFO, "Performing 'AutoDetectProxyInfo' ...");
    if (!autoDetect && pacUrl.empty()) {
        Log(LOG_ERROR, "Automatically detect proxy settings is not selected or PAC URL is empty!");
        return false;
    }
    proxyList.clear();

    const UniqueWinHttp session(
        WinHttpOpen(L"WinHTTP/1.0", WINHTTP_ACCESS_TYPE_DEFAULT_PROXY, WINHTTP_NO_PROXY_NAME, WINHTTP_NO_PROXY_BYPASS, 0));
    if (!session) {
        ProxyLogger::LogApiFailure("WinHttpOpen");
        return false;
    }

    WINHTTP_AUTOPROXY_OPTIONS options = {};
    if (autoDetect) {
        options.dwFlags = WINHTTP_AUTOPROXY_AUTO_DETECT | WINHTTP_AUTOPROXY_RUN_INPROCESS;
        options.dwAutoDetectFlags = WINHTTP_AUTO_DETECT_TYPE_DHCP | WINHTTP_AUTO_DETECT_TYPE_DNS_A;
    } else {
        options.dwFlags = WINHTTP_AUTOPROXY_CONFIG_URL;
        options.lpszAutoConfigUrl = pacUrl.c_str();
    }
    options.fAutoLogonIfChallenged = TRUE;

    const std::wstring url = Widen(requestUrl_);
    WINHTTP_PROXY_INFO info = {};
    if (!WinHttpGetProxyForUrl(session.get(), url.c_str(), &options, &info)) {
        ProxyLogger::LogApiFailure("WinHttpGetProxyForUrl");
    } else {
        const UniqueWinHttpString proxy(info.lpszProxy);
        const UniqueWinHttpString bypass(info.lpszProxyBypass);
        if (bypass)
            Log(LOG_DEBUG, "Bypass proxy server list:%s", Narrow(bypass.get()).c_str());
        if (HasText(proxy.get())) {
            Log(LOG_DEBUG, "Proxy server list:%s", Narrow(proxy.get()).c_str());
            proxyList = proxy.get();
            return true;
        }
    }
    Log(LOG_INFO, "Unable to automatically detect proxy information using %s", autoDetect ? "WPAD" : "PAC URL");
    return false;
}

} // namespace QRVL::ProxyManager
