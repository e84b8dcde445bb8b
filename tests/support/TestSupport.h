// Shared helpers of the test programs: environment, scratch folders, files and text.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

namespace qvtest {

std::wstring env(const wchar_t* name, const wchar_t* fallback = L"");
unsigned port(unsigned offset); // QVDLM_TEST_PORT_BASE + offset (loopback)
std::wstring workDir();         // QVDLM_TEST_WORK as a Windows path (the temporary folder without it)

// A fresh, empty scratch folder for one test, removed when the object dies.
class ScratchDir {
public:
    explicit ScratchDir(const std::wstring& name);
    ~ScratchDir();
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    const std::wstring& path() const { return path_; }
    std::wstring operator/(const std::wstring& child) const { return path_ + L"\\" + child; }

private:
    std::wstring path_;
};

void removeTree(const std::wstring& path);
bool writeFile(const std::wstring& path, const std::string& bytes);
bool readFile(const std::wstring& path, std::string& bytes);
bool fileExists(const std::wstring& path);
std::string narrow(const std::wstring& text); // UTF-8
std::wstring widen(const std::string& text);
std::string patternBytes(size_t size, uint32_t seed); // deterministic pseudo-random bytes

} // namespace qvtest
