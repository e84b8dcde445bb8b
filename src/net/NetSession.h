// One session of the NetSession client: the module that made it stays loaded while the session lives,
// and the session is stopped and handed back to the module's destroy function when the object dies.
#pragma once

#include <memory>

#include "common/Win32Raii.h"
#include "net/AkamaiNetSession.h"

namespace qv {

class NetSession {
public:
    // Loads the module (if it can) and asks it for a session; null when the module or one of its two
    // functions is missing or the module makes no session.
    static std::unique_ptr<NetSession> create(const char* application, const char* content, const char* query);

    ~NetSession();
    NetSession(const NetSession&) = delete;
    NetSession& operator=(const NetSession&) = delete;

    unsigned needsInstall() { return session_->needsInstall(); }
    unsigned resume() { return session_->resume(nullptr); }
    unsigned stop(bool discard) { return session_->stop(discard); }
    unsigned pause() { return session_->pause(); }
    void release(const char* url) { session_->release(url); }
    unsigned getState() { return session_->getState(); }
    unsigned getLastError() { return session_->getLastError(); }

    // Leaves the session running and its module loaded for the rest of the process.
    void keepAlive();

private:
    NetSession(UniqueModule module, AkamaiNetSession* session, AkamaiDestroySessionFn destroy);

    UniqueModule module_;
    AkamaiNetSession* session_;
    AkamaiDestroySessionFn destroy_;
};

} // namespace qv
