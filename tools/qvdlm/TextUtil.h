// Text conversions and small text rules of the client.
#pragma once

#include <string>
#include <vector>

namespace qvcli {

std::string toUtf8(const std::wstring& text);
std::wstring fromUtf8(const std::string& text);

// A key given as pairs of hexadecimal digits ("0a0b..."), into its bytes. Refuses an empty text, an odd
// number of digits, non-hex characters and zero bytes (the key travels as a NUL-terminated string).
bool decodeHexKey(const std::wstring& hex, std::string& key, std::wstring& error);

constexpr int kNoMatch = -1;
constexpr int kAmbiguous = -2;

// The index of the ID that equals wanted, else of the only ID that begins with it; kNoMatch or
// kAmbiguous otherwise.
int findRequestId(const std::vector<std::wstring>& ids, const std::wstring& wanted);

// The folder part of a Windows path ("C:\a\b" gives "C:\a"); empty when there is none.
std::wstring parentFolder(const std::wstring& path);

} // namespace qvcli
