// MD5 through the CryptoAPI, for checking digests and URL tokens.
#pragma once

#include <cstdint>
#include <string>

namespace qvtest {

// The URL token digest: md5(key || md5(expiry32 little-endian || url || extra || key)) in hex.
std::string urlTokenDigest(uint32_t expiry, const std::string& url, const std::string& extra, const std::string& key);

} // namespace qvtest
