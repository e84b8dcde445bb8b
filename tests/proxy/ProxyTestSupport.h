// Shared pieces of the proxy tests: the loopback servers' addresses, credential-store entries
// removed around a test, and a result record that frees itself.
#pragma once

#include <windows.h>

#include <string>

#include "QrvlProxy.h"

namespace proxytest {

// Port offsets of the servers started by proxy_servers.py.
constexpr unsigned kBasicProxy = 12;
constexpr unsigned kOrigin = 13;
constexpr unsigned kOpenProxy = 14;
constexpr unsigned kNtlmProxy = 15;
constexpr unsigned kDigestProxy = 16;
constexpr unsigned kClosedPort = 17; // nothing listens there

constexpr char kProxyUser[] = "alice";
constexpr char kProxyPassword[] = "S3cret-pw";

std::string portText(unsigned offset);
std::string proxyAt(unsigned offset); // "127.0.0.1:<port>"
std::string pacUrl(const std::string& result); // PAC script on the origin answering `result`

// Removes the generic credential for `target` now and again when it goes out of scope.
class CredentialCleanup {
public:
    explicit CredentialCleanup(std::wstring target);
    ~CredentialCleanup();
    CredentialCleanup(const CredentialCleanup&) = delete;
    CredentialCleanup& operator=(const CredentialCleanup&) = delete;

private:
    std::wstring target_;
};

bool writeCredential(const std::wstring& target, const std::wstring& user, const std::wstring& password);
// The stored user and password for `target`; false when there is none.
bool readCredential(const std::wstring& target, std::wstring& user, std::wstring& password);

// A result record released through the library when it goes out of scope.
struct Record {
    ProxyInfo info = {};
    Record() = default;
    ~Record() { qrvlProxyDeallocate(&info); }
    Record(const Record&) = delete;
    Record& operator=(const Record&) = delete;
    ProxyInfo* out() { return &info; }
    std::string server() const { return info.server ? info.server : "<null>"; }
    std::string port() const { return info.serverPort ? info.serverPort : "<null>"; }
    std::string user() const { return info.user ? info.user : "<null>"; }
    std::string password() const { return info.password ? info.password : "<null>"; }
};

} // namespace proxytest
