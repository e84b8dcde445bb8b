#include "proxy/ProxyTestSupport.h"

#include <wincred.h>

#include "support/TestSupport.h"

namespace proxytest {

std::string portText(unsigned offset) { return std::to_string(qvtest::port(offset)); }

std::string proxyAt(unsigned offset) { return "127.0.0.1:" + portText(offset); }

std::string pacUrl(const std::string& result)
{
    std::string escaped;
    for (char c : result) {
        if (c == ' ')
            escaped += "%20";
        else
            escaped += c;
    }
    return "http://127.0.0.1:" + portText(kOrigin) + "/pac/" + escaped;
}

CredentialCleanup::CredentialCleanup(std::wstring target) : target_(std::move(target))
{
    CredDeleteW(target_.c_str(), CRED_TYPE_GENERIC, 0);
}

CredentialCleanup::~CredentialCleanup() { CredDeleteW(target_.c_str(), CRED_TYPE_GENERIC, 0); }

bool writeCredential(const std::wstring& target, const std::wstring& user, const std::wstring& password)
{
    std::wstring t = target;
    std::wstring u = user;
    std::wstring p = password;
    CREDENTIALW credential = {};
    credential.Type = CRED_TYPE_GENERIC;
    credential.TargetName = t.data();
    credential.UserName = u.data();
    credential.CredentialBlob = reinterpret_cast<LPBYTE>(p.data());
    credential.CredentialBlobSize = static_cast<DWORD>(p.size() * sizeof(wchar_t));
    credential.Persist = CRED_PERSIST_LOCAL_MACHINE;
    return CredWriteW(&credential, 0) != FALSE;
}

bool readCredential(const std::wstring& target, std::wstring& user, std::wstring& password)
{
    PCREDENTIALW credential = nullptr;
    if (!CredReadW(target.c_str(), CRED_TYPE_GENERIC, 0, &credential))
        return false;
    user = credential->UserName ? credential->UserName : L"";
    password.assign(reinterpret_cast<const wchar_t*>(credential->CredentialBlob),
                    credential->CredentialBlobSize / sizeof(wchar_t));
    CredFree(credential);
    return true;
}

} // namespace proxytest
