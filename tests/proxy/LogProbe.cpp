// proxy_log_probe <url | --null | --empty-url> [--user U] [--password P] [--silent]
// One proxy lookup through the exported functions; the exit code is the status. Run under the debug
// capture to see what the library logs.
#include <windows.h>

#include <cstring>
#include <string>

#include "QrvlProxy.h"

int main(int argc, char** argv)
{
    if (argc < 2)
        return 100;
    UserData in = {};
    ProxyInfo out = {};
    std::string url = argv[1];
    bool nullInput = false;
    if (url == "--null")
        nullInput = true;
    else if (url == "--empty-url")
        in.url = "";
    else
        in.url = argv[1];
    for (int i = 2; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--user" && i + 1 < argc)
            in.user = argv[++i];
        else if (arg == "--password" && i + 1 < argc)
            in.password = argv[++i];
        else if (arg == "--silent")
            in.silentMode = true;
        else
            return 101;
    }
    const unsigned status = nullInput ? qrvlGetProxyInfo(nullptr, &out) : qrvlGetProxyInfo(&in, &out);
    qrvlProxyDeallocate(&out);
    return static_cast<int>(status);
}
