// Proxy credentials: the Windows credential store (one generic entry per proxy host) and the
// system's credential dialog.
#include <windows.h>
#include <wincred.h>


#include "common/Win32Raii.h"
#include "proxy/ProxyLogger.h"
#include "proxy/ProxyManagerImplWin.h"
#include "proxy/ProxyText.h"

namespace QRVL::ProxyManager {

namespace {

struct CredentialTraits {
    using type = PCREDENTIALW;
    static type invalid() noexcept { return nullptr; }
    static void close(type c) noexcept { ::CredFree(c); }
};
using UniqueCredential = qv::UniqueResource<CredentialTraits>;

constexpr size_t kCredentialChars = 256;

} // namespace

PMStatus ProxyManagerImplWin::ShowCredentialDialog(const std::string& target, std::wstring& user,
                                                   std::wstring& password)
{
    Log(LOG_INFO, "Performing 'ShowCredentialDialog' ...");
    Wipe(user);
    Wipe(password);

    const std::wstring wideTarget = Widen(target);
    wchar_t typedUser[kCredentialChars] = {};
    wchar_t typedPassword[kCredentialChars] = {};
    const DWORD answer = CredUIPromptForCredentialsW(nullptr, wideTarget.c_str(), nullptr, 0, typedUser,
                                                     static_cast<ULONG>(kCredentialChars), typedPassword,
                                                     static_cast<ULONG>(kCredentialChars), nullptr,
                                                     CREDUI_FLAGS_DO_NOT_PERSIST | CREDUI_FLAGS_EXCLUDE_CERTIFICATES);
    Log(LOG_INFO, "ShowCredentialDialog response:%lu", static_cast<unsigned long>(answer));
    if (answer == ERROR_CANCELLED) {
        Log(LOG_INFO, "User CANCELLED credential dialog!");
        return PM_STATUS_USER_CANCELLED;
    }
    if (answer != NO_ERROR) {
        Log(LOG_ERROR, "CredUIPromptForCredentialsW() API failed. Error:%lu", static_cast<unsigned long>(answer));
        return PM_STATUS_ERROR;
    }

    wchar_t name[kCredentialChars] = {};
    wchar_t domain[kCredentialChars] = {};
    const DWORD parsed = CredUIParseUserNameW(typedUser, name, static_cast<ULONG>(kCredentialChars), domain,
                                              static_cast<ULONG>(kCredentialChars));
    if (parsed != NO_ERROR) {
        SecureZeroMemory(typedPassword, sizeof typedPassword);
        Log(LOG_ERROR, "CredUIParseUserNameW() API failed. Error:%lu", static_cast<unsigned long>(parsed));
        return PM_STATUS_ERROR;
    }
    // The dialog may report the proxy host itself as the domain; that is no domain at all.
    if (!EqualsNoCase(domain, wideTarget))
        user = std::wstring(domain) + L"\\" + name;
    else
        user = name;
    password = typedPassword;
    SecureZeroMemory(typedPassword, sizeof typedPassword);
    return PM_STATUS_OK;
}

bool ProxyManagerImplWin::StoreCredentials(const std::string& target, const std::wstring& user,
                                           const std::wstring& password)
{
    Log(LOG_INFO, "Performing 'StoreCredentials' for proxy server:%s with user:%s", target.c_str(),
        Narrow(user).c_str());
    if (target.empty() || user.empty())
        return false;

    std::wstring wideTarget = Widen(target);
    std::wstring userName = user;
    std::wstring secret = password;
    CREDENTIALW credential = {};
    credential.Type = CRED_TYPE_GENERIC;
    credential.TargetName = wideTarget.data();
    credential.UserName = userName.data();
    credential.CredentialBlobSize = static_cast<DWORD>(secret.size() * sizeof(wchar_t));
    credential.CredentialBlob = secret.empty() ? nullptr : reinterpret_cast<LPBYTE>(secret.data());
    credential.Persist = CRED_PERSIST_LOCAL_MACHINE;
    const bool stored = CredWriteW(&credential, 0) != FALSE;
    Wipe(secret);
    if (stored)
        Log(LOG_INFO, "Successfully stored credential.");
    else
        Log(LOG_ERROR, "Failed to store credential !!!");
    return stored;
}

bool ProxyManagerImplWin::LoadCredentials(const std::string& target, std::wstring& user, std::wstring& password)
{
    Log(LOG_INFO, "Performing 'LoadCredentials' for proxy server:%s with user:%s", target.c_str(), user_.c_str());
    if (target.empty())
        return false;

    UniqueCredential credential;
    if (!CredReadW(Widen(target).c_str(), CRED_TYPE_GENERIC, 0, credential.put())) {
        Log(LOG_DEBUG, "No credential found.");
        return false;
    }
    Log(LOG_INFO, "Successfully loaded credential.");
    const CREDENTIALW* found = credential.get();
    user = found->UserName ? found->UserName : L"";
    Wipe(password);
    if (found->CredentialBlob && found->CredentialBlobSize >= sizeof(wchar_t))
        password.assign(reinterpret_cast<const wchar_t*>(found->CredentialBlob),
                        found->CredentialBlobSize / sizeof(wchar_t));
    if (found->CredentialBlob)
        SecureZeroMemory(found->CredentialBlob, found->CredentialBlobSize);
    return true;
}

} // namespace QRVL::ProxyManager
