// Proxy lookup for a URL: discovers the proxy the machine is configured to use, finds out which
// authentication scheme it wants and obtains credentials it accepts (from the caller, the Windows
// credential store or the credential dialog). All strings are UTF-8.
#pragma once

#include <cstdint>

#include "QvDLMExport.h"

// What the caller wants to reach. Owned by the caller.
struct UserData {
    const char* url;      // required, non-empty
    const char* user;     // proxy user name to try first, or null
    const char* password; // its password, or null
    bool silentMode;      // true: never show the credential dialog (PM_STATUS_SILENT_MODE_ERROR instead)
};

// Result of qrvlGetProxyInfo. The library fills it with heap strings; release them only with
// qrvlProxyDeallocate. Strings are set on PM_STATUS_OK with a proxy and on PM_STATUS_SILENT_MODE_ERROR
// (then without user and password); otherwise the pointers are null.
struct ProxyInfo {
    char* user;          // user name the proxy accepted (empty when none was needed)
    char* password;      // its password
    char* server;        // proxy host name
    char* serverPort;    // proxy port, decimal
    uint32_t authScheme; // one of ProxyAuthScheme
};

enum PMStatus : uint32_t {
    PM_STATUS_OK = 0,                      // proxy found and usable, or no proxy applies (record empty)
    PM_STATUS_NO_PROXY_CONFIGURATION = 1,  // the machine names no proxy at all
    PM_STATUS_ERROR = 2,                   // a WinHTTP or credential step failed, or an unusable proxy list
    PM_STATUS_INVALID_INPUT = 4,           // null argument or empty URL
    PM_STATUS_USER_CANCELLED = 5,          // the user cancelled the credential dialog
    PM_STATUS_SILENT_MODE_ERROR = 6        // credentials needed but silentMode forbids asking
};

// Authentication scheme reported in ProxyInfo::authScheme.
enum ProxyAuthScheme : uint32_t {
    PROXY_AUTH_NONE = 0,
    PROXY_AUTH_BASIC = 1,
    PROXY_AUTH_DIGEST = 2,
    PROXY_AUTH_NTLM = 4 // NTLM or Negotiate
};

// Blocks while WPAD detection runs and while the credential dialog is open. Returns a PMStatus.
// Strings left in *out by an earlier call are not freed: release them first.
QVDLM_C_API unsigned int qrvlGetProxyInfo(UserData* in, ProxyInfo* out);

// Frees the strings of a filled record and zeroes it. Null is ignored; calling it twice is harmless.
QVDLM_C_API void qrvlProxyDeallocate(ProxyInfo* out);
