#include "proxy/ProxyManagerImpl.h"

namespace QRVL::ProxyManager {

ProxyManagerImpl::~ProxyManagerImpl() = default;

PMStatus ProxyManagerImpl::CheckInput(const UserData* in, ProxyInfo* out)
{
    if (out)
        ResetOutput(out);
    if (!in || !out || !in->url || in->url[0] == '\0')
        return PM_STATUS_INVALID_INPUT;
    return PM_STATUS_OK;
}

void ProxyManagerImpl::ResetOutput(ProxyInfo* out)
{
    if (!out)
        return;
    out->user = nullptr;
    out->password = nullptr;
    out->server = nullptr;
    out->serverPort = nullptr;
    out->authScheme = PROXY_AUTH_NONE;
}

} // namespace QRVL::ProxyManager
