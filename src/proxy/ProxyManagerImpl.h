// Base of the proxy managers: one object answers one proxy lookup. The virtual slot order is fixed.
#pragma once

#include "QrvlProxy.h"

namespace QRVL::ProxyManager {

class ProxyManagerImpl {
public:
    virtual ~ProxyManagerImpl();
    virtual PMStatus GetProxyInfo(UserData* in, ProxyInfo* out) = 0;
    // Resets the record, then PM_STATUS_OK when a URL was given, else PM_STATUS_INVALID_INPUT.
    virtual PMStatus CheckInput(const UserData* in, ProxyInfo* out);
    // Forgets the record's strings without freeing them (they may belong to someone else).
    virtual void ResetOutput(ProxyInfo* out);

    ProxyManagerImpl(const ProxyManagerImpl&) = delete;
    ProxyManagerImpl& operator=(const ProxyManagerImpl&) = delete;

protected:
    ProxyManagerImpl() = default;
};

} // namespace QRVL::ProxyManager
