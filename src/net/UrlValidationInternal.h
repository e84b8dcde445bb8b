// The parts of URL validation that need no network, for the library's own use.
#pragma once

#include <cstdint>

// True when the host part of url (up to its first "/" after the scheme) holds a trusted name. The
// match is a plain substring search, loose on purpose. A URL without "://" is searched from its third
// character; one of fewer than two characters makes the string class throw std::out_of_range.
bool validateUrlDomain(const wchar_t* url);

// The validation code for an HTTP source that is not connected, from its last status.
uint32_t notConnectedCode(uint32_t status);
