// Time-limited URL authentication tokens: a keyed MD5 digest over expiry, URL and extra material.
// Results are 0 or a negative code; buffers the functions allocate are the caller's to free().
#pragma once

#include <cstdint>

#include "QvDLMExport.h"

// Result codes.
enum UrlAuthResult {
    URLAUTH_OK = 0,
    URLAUTH_E_URL_NULL = -1,
    URLAUTH_E_URL_EMPTY = -2,
    URLAUTH_E_KEY_NULL = -3,
    URLAUTH_E_KEY_EMPTY = -4,
    URLAUTH_E_EXPIRY_ALLOC = -5,
    URLAUTH_E_TOKEN_ALLOC = -6,
    URLAUTH_E_CRYPT_CONTEXT = -7,
    URLAUTH_E_HASH1_CREATE = -8,
    URLAUTH_E_HASH_EXPIRY = -9,
    URLAUTH_E_HASH_URL = -10,
    URLAUTH_E_HASH_EXTRA = -11,
    URLAUTH_E_HASH_KEY = -12,
    URLAUTH_E_DIGEST1 = -13,
    URLAUTH_E_HASH2_CREATE = -14,
    URLAUTH_E_HASH2_KEY = -15,
    URLAUTH_E_HASH2_DIGEST = -16,
    URLAUTH_E_DIGEST2 = -17,
    URLAUTH_E_URL_PARAM = -101
};

// start 0 means now. expiryOut may be null. When *tokenOut is null a 33-byte buffer is allocated;
// otherwise the digest text is written over the first 33 bytes of url (kept for compatibility).
QVDLM_C_API int urlauth_gen_token(const char* url, uint64_t start, uint64_t lifetime, const char* key,
                                  const char* extra, int64_t* expiryOut, char** tokenOut);

// The URL with "?" or "&" and "<expiry>_<digest>" appended. paramName null means "__gda__"; it must be
// 5 to 12 characters long. expiryOut is required.
QVDLM_C_API int urlauth_gen_URL(const char* url, uint64_t start, uint64_t lifetime, const char* key,
                                const char* extra, const char* paramName, int64_t* expiryOut, char** urlOut);

QVDLM_C_API const char* url_auth_version;
