#include "net/NetSession.h"

#include <utility>

namespace qv {

std::unique_ptr<NetSession> NetSession::create(const char* application, const char* content, const char* query)
{
    // Each session holds its own reference on the module, so the module goes away with the last one.
    UniqueModule module(LoadLibraryW(akamai_module::kFileName));
    if (!module)
        return nullptr;
    auto create = reinterpret_cast<AkamaiCreateSessionFn>(
        reinterpret_cast<void*>(GetProcAddress(module.get(), akamai_module::kCreateSymbol)));
    auto destroy = reinterpret_cast<AkamaiDestroySessionFn>(
        reinterpret_cast<void*>(GetProcAddress(module.get(), akamai_module::kDestroySymbol)));
    if (!create || !destroy)
        return nullptr;
    AkamaiNetSession* session = create(application, content, query);
    if (!session)
        return nullptr;
    return std::unique_ptr<NetSession>(new NetSession(std::move(module), session, destroy));
}

NetSession::NetSession(UniqueModule module, AkamaiNetSession* session, AkamaiDestroySessionFn destroy)
    : module_(std::move(module)), session_(session), destroy_(destroy)
{
}

NetSession::~NetSession()
{
    if (!session_)
        return;
    // The module expects every session to be stopped before it is destroyed.
    session_->stop(false);
    destroy_(session_);
}

void NetSession::keepAlive()
{
    session_ = nullptr;
    module_.release();
}

} // namespace qv
