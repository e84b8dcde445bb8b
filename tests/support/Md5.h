// An MD5 of the tests' own (RFC 1321), independent of the CryptoAPI that the library uses.
#pragma once

#include <cstdint>
#include <string>

namespace qvtest {

// The 16 raw digest bytes of data.
std::string md5Raw(const std::string& data);
// The digest as 32 lower-case hexadecimal characters.
std::string md5Hex(const std::string& data);
// The URL token digest: md5(key || md5(expiry32 little-endian || url || extra || key)) in hex.
std::string urlTokenDigest(uint32_t expiry, const std::string& url, const std::string& extra, const std::string& key);

} // namespace qvtest
