// Where the shared test servers of tests/fixtures listen and what they serve. A test program that
// uses one names its fixture ("nginx", "faultserver") in qvdlm_test(... FIXTURES ...).
#pragma once

#include <string>

#include "support/TestSupport.h"

namespace qvtest {

constexpr unsigned kNginxPortOffset = 0;
constexpr unsigned kFaultServerPortOffset = 1;

// http://localhost:<port>/<path>; path without a leading "/".
inline std::wstring nginxUrl(const std::wstring& path) { return L"http://localhost:" + std::to_wstring(port(kNginxPortOffset)) + L"/" + path; }
inline std::wstring faultUrl(const std::wstring& path) { return L"http://localhost:" + std::to_wstring(port(kFaultServerPortOffset)) + L"/" + path; }
// The folder both servers serve (nginx at its root, the fault server under /file/).
inline std::wstring wwwDir() { return workDir() + L"\\www"; }

// The standard generated files: pattern-<seed>-<size>.bin holds patternBytes(size, seed).
inline std::wstring patternFileName(size_t size, uint32_t seed) { return L"pattern-" + std::to_wstring(seed) + L"-" + std::to_wstring(size) + L".bin"; }
constexpr size_t kPattern1Size = 1048576;            // seed 1
constexpr size_t kPattern2Size = 4 * 1048576 + 4099; // seed 2: longer than one 4 MiB read
constexpr size_t kPattern3Size = 65536;              // seed 3: also the fault server's built-in body
constexpr size_t kFaultCut = 16384;                  // where /fin, /rst and /stall break the built-in body

} // namespace qvtest
