// Owners for WinHTTP handles and the strings WinHTTP hands out. Includes winhttp.h: keep it out of
// translation units that use WinINet.
#pragma once

#include <windows.h>
#include <winhttp.h>

#include "common/Win32Raii.h"

namespace QRVL::ProxyManager {

struct WinHttpHandleTraits {
    using type = HINTERNET;
    static type invalid() noexcept { return nullptr; }
    static void close(type h) noexcept { ::WinHttpCloseHandle(h); }
};

// Strings in WinHTTP's proxy structures are released with GlobalFree.
struct WinHttpStringTraits {
    using type = wchar_t*;
    static type invalid() noexcept { return nullptr; }
    static void close(type s) noexcept { ::GlobalFree(s); }
};

using UniqueWinHttp = qv::UniqueResource<WinHttpHandleTraits>;
using UniqueWinHttpString = qv::UniqueResource<WinHttpStringTraits>;

// The handles of one HEAD probe through a proxy; closed request first.
struct ProxyProbe {
    UniqueWinHttp session;
    UniqueWinHttp connection;
    UniqueWinHttp request;
    bool secure = false; // HTTPS: the request goes through a tunnel

    ProxyProbe() = default;
    ~ProxyProbe()
    {
        request.reset();
        connection.reset();
        session.reset();
    }
    ProxyProbe(const ProxyProbe&) = delete;
    ProxyProbe& operator=(const ProxyProbe&) = delete;
};

} // namespace QRVL::ProxyManager
