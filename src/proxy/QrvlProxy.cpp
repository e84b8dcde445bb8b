// The proxy lookup's C entry points.
#include "QrvlProxy.h"

#include "proxy/ProxyLogger.h"
#include "proxy/ProxyManagerImplWin.h"
#include "proxy/ProxyText.h"

using QRVL::ProxyManager::HeapRelease;

QVDLM_C_API unsigned int qrvlGetProxyInfo(UserData* in, ProxyInfo* out)
{
    if (!in || !out)
        return PM_STATUS_INVALID_INPUT;
    try {
        QRVL::ProxyManager::ProxyManagerImplWin manager;
        return manager.GetProxyInfo(in, out);
    } catch (...) {
        // Out of memory or a list too unwieldy for the expression engine: nothing half-filled goes back.
        QRVL::ProxyManager::ProxyLogger::Log(QRVL::ProxyManager::LOG_ERROR, "Proxy lookup aborted by an internal error.");
        qrvlProxyDeallocate(out);
        return PM_STATUS_ERROR;
    }
}

QVDLM_C_API void qrvlProxyDeallocate(ProxyInfo* out)
{
    if (!out)
        return;
    HeapRelease(out->server);
    HeapRelease(out->serverPort);
    HeapRelease(out->user);
    HeapRelease(out->password);
    out->authScheme = PROXY_AUTH_NONE;
}
