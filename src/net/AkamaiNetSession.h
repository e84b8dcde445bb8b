// The session class of the NetSession client's module (QvDownload.dll), which is not ours. Only the
// table of virtual operations matters here: its slot order is the module's binary interface. The two
// static functions are never linked against; they are looked up in the module by their exported names.
#pragma once

class AkamaiNetSession {
public:
    // Answers of resume() when the session could not start; of pause() when polling should stop.
    static constexpr unsigned kAllOnes = 0xFFFFFFFFu;
    // getState() while the session is busy.
    static constexpr unsigned kStateBusy = 3;

    virtual unsigned needsInstall() = 0;          // non-zero: the client is to be installed or started
    virtual unsigned resume(void* reserved) = 0;  // non-zero: failure
    virtual void unusedSlot2() = 0;
    virtual unsigned stop(bool discard) = 0;      // non-zero: the session handled the stop itself
    virtual unsigned pause() = 0;
    virtual void release(const char* url) = 0;    // UTF-8 origin URL, or null for a single-file package
    virtual void unusedSlot6() = 0;
    virtual unsigned getState() = 0;
    virtual void unusedSlot8() = 0;
    virtual unsigned getLastError() = 0;          // 0: the session is usable

    AkamaiNetSession(const AkamaiNetSession&) = delete;
    AkamaiNetSession& operator=(const AkamaiNetSession&) = delete;

protected:
    AkamaiNetSession() = default;
    // Sessions are released only through the module's destroy function.
    ~AkamaiNetSession() = default;
};

// Signatures of the module's two static member functions.
using AkamaiCreateSessionFn = AkamaiNetSession* (*)(const char* application, const char* content, const char* query);
using AkamaiDestroySessionFn = void (*)(AkamaiNetSession* session);

// The module and the names under which it exports the two functions. The names are the compiler's
// decorated forms of AkamaiNetSession::createAkamaiNetSession(const char*, const char*, const char*)
// and AkamaiNetSession::destroy(AkamaiNetSession*), so they follow the toolchain the module is built with.
namespace akamai_module {
constexpr const wchar_t* kFileName = L"QvDownload.dll";
#if defined(_MSC_VER)
constexpr const char* kCreateSymbol = "?createAkamaiNetSession@AkamaiNetSession@@SAPEAV1@PEBD00@Z";
constexpr const char* kDestroySymbol = "?destroy@AkamaiNetSession@@SAXPEAV1@@Z";
#else
constexpr const char* kCreateSymbol = "_ZN16AkamaiNetSession22createAkamaiNetSessionEPKcS1_S1_";
constexpr const char* kDestroySymbol = "_ZN16AkamaiNetSession7destroyEPS_";
#endif
} // namespace akamai_module
