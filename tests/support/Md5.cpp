#include "support/Md5.h"

#include <windows.h>
#include <wincrypt.h>

namespace qvtest {

static std::string md5Raw(const std::string& data)
{
    std::string out(16, '\0');
    HCRYPTPROV provider = 0;
    HCRYPTHASH hash = 0;
    DWORD size = 16;
    if (CryptAcquireContextW(&provider, nullptr, nullptr, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT)) {
        if (CryptCreateHash(provider, CALG_MD5, 0, 0, &hash)) {
            CryptHashData(hash, reinterpret_cast<const BYTE*>(data.data()), static_cast<DWORD>(data.size()), 0);
            CryptGetHashParam(hash, HP_HASHVAL, reinterpret_cast<BYTE*>(out.data()), &size, 0);
            CryptDestroyHash(hash);
        }
        CryptReleaseContext(provider, 0);
    }
    return out;
}

std::string urlTokenDigest(uint32_t expiry, const std::string& url, const std::string& extra, const std::string& key)
{
    const std::string inner(reinterpret_cast<const char*>(&expiry), 4); // little-endian on x86-64
    std::string hex;
    for (unsigned char c : md5Raw(key + md5Raw(inner + url + extra + key)))
        hex += {"0123456789abcdef"[c >> 4], "0123456789abcdef"[c & 15]};
    return hex;
}

} // namespace qvtest
