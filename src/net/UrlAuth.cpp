// URL authentication tokens: MD5(key || MD5(expiry32 || url || extra || key)) as lower-case hex.
#include "UrlAuth.h"

#include <windows.h>
#include <wincrypt.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" {
QVDLM_API const char* url_auth_version = "1.1.3";
}

namespace {

constexpr size_t kDigestTextSize = 33;
constexpr DWORD kMd5Size = 16;
constexpr int64_t kLastSecondOfYear3000 = 32535244799LL;
constexpr ULONGLONG kUnixEpochAsFileTime = 0x19DB1DED53E8000ULL;

int64_t secondsSince1970()
{
    FILETIME ft;
    GetSystemTimeAsFileTime(&ft);
    ULARGE_INTEGER t;
    t.LowPart = ft.dwLowDateTime;
    t.HighPart = ft.dwHighDateTime;
    const int64_t seconds = static_cast<int64_t>((t.QuadPart - kUnixEpochAsFileTime) / 10000000ULL);
    return seconds > kLastSecondOfYear3000 ? -1 : seconds;
}

// A CryptoAPI context and hash whose release is tied to scope.
class Md5Session {
public:
    ~Md5Session()
    {
        destroyHash();
        if (provider_)
            CryptReleaseContext(provider_, 0);
    }
    bool acquire()
    {
        if (CryptAcquireContextW(&provider_, nullptr, nullptr, PROV_RSA_FULL, 0))
            return true;
        // A fresh profile has no default key container yet.
        if (GetLastError() == static_cast<DWORD>(NTE_BAD_KEYSET))
            return CryptAcquireContextW(&provider_, nullptr, nullptr, PROV_RSA_FULL, CRYPT_NEWKEYSET) != FALSE;
        provider_ = 0;
        return true; // the next step reports the failure
    }
    bool newHash()
    {
        destroyHash();
        return provider_ && CryptCreateHash(provider_, CALG_MD5, 0, 0, &hash_);
    }
    bool add(const void* data, size_t size)
    {
        return CryptHashData(hash_, static_cast<const BYTE*>(data), static_cast<DWORD>(size), 0) != FALSE;
    }
    bool digest(BYTE (&out)[kMd5Size])
    {
        DWORD size = kMd5Size;
        return CryptGetHashParam(hash_, HP_HASHVAL, out, &size, 0) && size == kMd5Size;
    }

private:
    void destroyHash()
    {
        if (hash_)
            CryptDestroyHash(hash_);
        hash_ = 0;
    }
    HCRYPTPROV provider_ = 0;
    HCRYPTHASH hash_ = 0;
};

int computeDigest(uint32_t expiry, const char* url, const char* extra, const char* key, char* text)
{
    Md5Session md5;
    if (!md5.acquire())
        return URLAUTH_E_CRYPT_CONTEXT;
    if (!md5.newHash())
        return URLAUTH_E_HASH1_CREATE;
    const BYTE expiryBytes[4] = {static_cast<BYTE>(expiry), static_cast<BYTE>(expiry >> 8),
                                 static_cast<BYTE>(expiry >> 16), static_cast<BYTE>(expiry >> 24)};
    if (!md5.add(expiryBytes, sizeof expiryBytes))
        return URLAUTH_E_HASH_EXPIRY;
    if (!md5.add(url, std::strlen(url)))
        return URLAUTH_E_HASH_URL;
    if (extra && !md5.add(extra, std::strlen(extra)))
        return URLAUTH_E_HASH_EXTRA;
    if (!md5.add(key, std::strlen(key)))
        return URLAUTH_E_HASH_KEY;
    BYTE first[kMd5Size];
    if (!md5.digest(first))
        return URLAUTH_E_DIGEST1;

    if (!md5.newHash())
        return URLAUTH_E_HASH2_CREATE;
    if (!md5.add(key, std::strlen(key)))
        return URLAUTH_E_HASH2_KEY;
    if (!md5.add(first, sizeof first))
        return URLAUTH_E_HASH2_DIGEST;
    BYTE second[kMd5Size];
    if (!md5.digest(second))
        return URLAUTH_E_DIGEST2;

    static const char kHex[] = "0123456789abcdef";
    for (DWORD i = 0; i < kMd5Size; ++i) {
        text[2 * i] = kHex[second[i] >> 4];
        text[2 * i + 1] = kHex[second[i] & 0xF];
    }
    text[2 * kMd5Size] = '\0';
    return URLAUTH_OK;
}

} // namespace

QVDLM_C_API int urlauth_gen_token(const char* url, uint64_t start, uint64_t lifetime, const char* key,
                                  const char* extra, int64_t* expiryOut, char** tokenOut)
{
    if (!url)
        return URLAUTH_E_URL_NULL;
    if (!*url)
        return URLAUTH_E_URL_EMPTY;
    if (!key)
        return URLAUTH_E_KEY_NULL;
    if (!*key)
        return URLAUTH_E_KEY_EMPTY;

    if (start == 0)
        start = static_cast<uint64_t>(secondsSince1970());
    int64_t* expiryCell = expiryOut;
    bool ownExpiry = false;
    if (!expiryCell) {
        expiryCell = static_cast<int64_t*>(std::malloc(sizeof(int64_t)));
        if (!expiryCell)
            return URLAUTH_E_EXPIRY_ALLOC;
        ownExpiry = true;
    }

    // A caller-supplied token pointer makes the digest overwrite the URL's own memory; long-standing
    // behaviour that callers rely on.
    char* token = nullptr;
    bool ownToken = false;
    if (*tokenOut == nullptr) {
        token = static_cast<char*>(std::malloc(kDigestTextSize));
        if (!token) {
            if (ownExpiry)
                std::free(expiryCell);
            return URLAUTH_E_TOKEN_ALLOC;
        }
        ownToken = true;
    } else {
        token = const_cast<char*>(url);
    }

    const int64_t expiry = static_cast<int64_t>(start + lifetime);
    *expiryCell = expiry;

    // The URL may share memory with the token buffer: hash from a copy taken before it is cleared.
    const size_t urlLength = std::strlen(url);
    char* urlCopy = static_cast<char*>(std::malloc(urlLength + 1));
    if (!urlCopy) {
        if (ownExpiry)
            std::free(expiryCell);
        if (ownToken)
            std::free(token);
        return URLAUTH_E_TOKEN_ALLOC;
    }
    std::memcpy(urlCopy, url, urlLength + 1);

    // Inside the caller's URL only its own length is known to be writable: the digest is cut to fit.
    const size_t capacity = ownToken ? kDigestTextSize : (urlLength + 1 < kDigestTextSize ? urlLength + 1 : kDigestTextSize);
    *tokenOut = token;
    std::memset(token, 0, capacity);
    char digest[kDigestTextSize];
    const int rc = computeDigest(static_cast<uint32_t>(expiry), urlCopy, extra, key, digest);
    std::free(urlCopy);
    if (rc == URLAUTH_OK) {
        std::memcpy(token, digest, capacity - 1);
        token[capacity - 1] = '\0';
    }
    if (rc != URLAUTH_OK) {
        if (ownExpiry)
            std::free(expiryCell);
        if (ownToken) {
            std::free(token);
            *tokenOut = nullptr;
        }
        return rc;
    }
    // A temporary expiry cell is deliberately not freed on success, as the original routine does.
    return URLAUTH_OK;
}

QVDLM_C_API int urlauth_gen_URL(const char* url, uint64_t start, uint64_t lifetime, const char* key,
                                const char* extra, const char* paramName, int64_t* expiryOut, char** urlOut)
{
    char* token = nullptr;
    const int rc = urlauth_gen_token(url, start, lifetime, key, extra, expiryOut, &token);
    if (rc < 0)
        return rc;

    const char* name = paramName ? paramName : "__gda__";
    const size_t nameLength = std::strlen(name);
    if (nameLength < 5 || nameLength > 12) {
        std::free(token);
        return URLAUTH_E_URL_PARAM;
    }

    // The classic size (URL + name + 13) cannot hold the 10-digit expiry and the 32-digit digest:
    // allocate what the text needs when that is more.
    const size_t urlLength = std::strlen(url);
    const size_t needed = urlLength + 1 + 10 + 1 + 32 + 1;
    size_t size = urlLength + nameLength + 13;
    if (size < needed)
        size = needed;
    char* out = nullptr;
    if (*urlOut == nullptr) {
        out = static_cast<char*>(std::malloc(size));
        if (!out) {
            if (token[0] != '\0')
                std::free(token);
            return URLAUTH_E_URL_PARAM;
        }
    } else {
        // Kept for compatibility: a caller-supplied URL pointer makes the text go to expiryOut's memory,
        // which holds only eight bytes; the text is cut there.
        out = reinterpret_cast<char*>(expiryOut);
        size = sizeof(int64_t);
    }

    const char separator = std::strchr(url, '?') ? '&' : '?';
    const unsigned long expiry32 = static_cast<uint32_t>(*expiryOut); // read before out may overwrite it
    std::snprintf(out, size, "%s%c%lu_%s", url, separator, expiry32, token);
    *urlOut = out;
    std::free(token);
    return rc;
}
