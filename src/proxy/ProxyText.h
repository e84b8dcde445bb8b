// Text helpers of the proxy subsystem: it keeps UTF-8 and converts at each system call.
#pragma once

#include <string>
#include <vector>

namespace QRVL::ProxyManager {

std::wstring Widen(const std::string& utf8);
std::string Narrow(const std::wstring& wide);
std::string Narrow(const wchar_t* wide); // null gives ""

bool EqualsNoCase(const std::wstring& a, const std::wstring& b);

// Splits like reading delimited pieces from a stream: false for an empty text, no trailing empty
// piece ("a;b;" gives two), inner empty pieces kept ("a;;b" gives three).
bool SplitDelimited(const std::wstring& text, wchar_t delimiter, std::vector<std::wstring>& pieces);

// A NUL-terminated copy on the C heap for records the caller releases through the library.
char* HeapCopy(const std::string& text);
void HeapRelease(char*& text);

// Overwrites a secret before its memory is given back.
void Wipe(std::wstring& secret);
void Wipe(std::string& secret);

} // namespace QRVL::ProxyManager
