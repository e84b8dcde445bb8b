// qvdlm token: a URL with a time-limited authentication token, made by the library.
#include <cstdlib>

#include "Commands.h"
#include "QvDLM.h"
#include "TextUtil.h"

namespace qvcli {

namespace {

const wchar_t* tokenError(int code)
{
    switch (code) {
    case URLAUTH_E_URL_NULL:
    case URLAUTH_E_URL_EMPTY: return L"the URL is empty";
    case URLAUTH_E_KEY_NULL:
    case URLAUTH_E_KEY_EMPTY: return L"the key is empty";
    case URLAUTH_E_EXPIRY_ALLOC:
    case URLAUTH_E_TOKEN_ALLOC: return L"out of memory";
    case URLAUTH_E_CRYPT_CONTEXT: return L"no cryptographic provider";
    case URLAUTH_E_URL_PARAM: return L"the parameter name must be 5 to 12 characters long";
    default: return code < URLAUTH_E_CRYPT_CONTEXT && code >= URLAUTH_E_DIGEST2 ? L"hashing failed" : L"failed";
    }
}

} // namespace

int runToken(const Options& o, Console& console)
{
    std::string key;
    std::wstring error;
    if (!decodeHexKey(o.keyHex, key, error)) {
        console.error(L"--key: " + error);
        return exitcode::Usage;
    }
    const std::string url = toUtf8(o.target);
    const std::string param = toUtf8(o.tokenParam);
    const std::string extra = toUtf8(o.tokenExtra);
    int64_t expiry = 0;
    char* out = nullptr; // must start null: otherwise the library writes into the expiry cell
    const int rc = urlauth_gen_URL(url.c_str(), o.tokenStart, o.tokenLifetime, key.c_str(),
                                   o.tokenExtra.empty() ? nullptr : extra.c_str(),
                                   o.tokenParam.empty() ? nullptr : param.c_str(), &expiry, &out);
    if (rc != URLAUTH_OK || !out) {
        console.error(L"urlauth_gen_URL failed with code " + std::to_wstring(rc) + L": " + tokenError(rc));
        return exitcode::Failed;
    }
    console.line(fromUtf8(out));
    std::free(out);
    return exitcode::Ok;
}

} // namespace qvcli
