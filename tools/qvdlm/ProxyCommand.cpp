// qvdlm proxy: what the library's proxy lookup finds for a URL. Never prints a password.
#include "Commands.h"
#include "QvDLM.h"
#include "TextUtil.h"

namespace qvcli {

namespace {

const wchar_t* statusName(unsigned status)
{
    switch (status) {
    case PM_STATUS_OK: return L"PM_STATUS_OK";
    case PM_STATUS_NO_PROXY_CONFIGURATION: return L"PM_STATUS_NO_PROXY_CONFIGURATION (no proxy is configured)";
    case PM_STATUS_ERROR: return L"PM_STATUS_ERROR (the lookup failed)";
    case PM_STATUS_INVALID_INPUT: return L"PM_STATUS_INVALID_INPUT";
    case PM_STATUS_USER_CANCELLED: return L"PM_STATUS_USER_CANCELLED";
    case PM_STATUS_SILENT_MODE_ERROR: return L"PM_STATUS_SILENT_MODE_ERROR (credentials needed; --ask allows the dialog)";
    default: return L"unknown status";
    }
}

const wchar_t* schemeName(uint32_t scheme)
{
    switch (scheme) {
    case PROXY_AUTH_NONE: return L"none";
    case PROXY_AUTH_BASIC: return L"Basic";
    case PROXY_AUTH_DIGEST: return L"Digest";
    case PROXY_AUTH_NTLM: return L"NTLM or Negotiate";
    default: return L"unknown";
    }
}

std::wstring field(const char* value) { return value ? fromUtf8(value) : std::wstring(); }

} // namespace

int runProxy(const Options& o, Console& console)
{
    const std::string url = toUtf8(o.target);
    UserData in{url.c_str(), nullptr, nullptr, !o.askCredentials};
    ProxyInfo out{};
    const unsigned status = qrvlGetProxyInfo(&in, &out);
    console.line(L"proxy lookup for " + o.target + L": " + std::to_wstring(status) + L" " + statusName(status));
    if (out.server && *out.server) {
        console.line(L"  server " + field(out.server) + L" port " + field(out.serverPort));
        console.line(std::wstring(L"  authentication ") + schemeName(out.authScheme));
        if (out.user && *out.user)
            console.line(L"  user " + field(out.user) + (out.password && *out.password ? L", password given" : L""));
    } else if (status == PM_STATUS_OK) {
        console.line(L"  direct connection (no proxy applies)");
    }
    qrvlProxyDeallocate(&out);
    return status == PM_STATUS_OK || status == PM_STATUS_NO_PROXY_CONFIGURATION ? exitcode::Ok : exitcode::Failed;
}


} // namespace qvcli
