#include "support/TestSupport.h"

namespace qvtest {

std::wstring env(const wchar_t* name, const wchar_t* fallback)
{
    wchar_t buffer[4096];
    const DWORD n = GetEnvironmentVariableW(name, buffer, 4096);
    return n == 0 || n >= 4096 ? fallback : std::wstring(buffer, n);
}

unsigned port(unsigned offset) { return static_cast<unsigned>(std::wcstoul(env(L"QVDLM_TEST_PORT_BASE", L"18400").c_str(), nullptr, 10)) + offset; }

std::wstring workDir()
{
    std::wstring root = env(L"QVDLM_TEST_WORK");
    if (root.empty()) {
        wchar_t temp[MAX_PATH];
        root.assign(temp, GetTempPathW(MAX_PATH, temp));
    } else if (root[0] == L'/') {
        root = L"Z:" + root; // a Unix path handed down by ctest: Wine maps the root file system to Z:
    }
    for (auto& c : root)
        c = c == L'/' ? L'\\' : c;
    while (!root.empty() && root.back() == L'\\')
        root.pop_back();
    return root;
}

ScratchDir::ScratchDir(const std::wstring& name) : path_(workDir() + L"\\" + name + L"-" + std::to_wstring(GetCurrentProcessId()))
{
    removeTree(path_);
    CreateDirectoryW(path_.c_str(), nullptr);
}

ScratchDir::~ScratchDir() { removeTree(path_); }

void removeTree(const std::wstring& path)
{
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW((path + L"\\*").c_str(), &data);
    for (BOOL more = find != INVALID_HANDLE_VALUE; more; more = FindNextFileW(find, &data)) {
        const std::wstring name = data.cFileName, child = path + L"\\" + name;
        if (name == L"." || name == L"..")
            continue;
        if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
            removeTree(child);
        SetFileAttributesW(child.c_str(), FILE_ATTRIBUTE_NORMAL);
        DeleteFileW(child.c_str());
    }
    if (find != INVALID_HANDLE_VALUE)
        FindClose(find);
    RemoveDirectoryW(path.c_str());
}

bool writeFile(const std::wstring& path, const std::string& bytes)
{
    HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    DWORD written = 0;
    const BOOL ok = file != INVALID_HANDLE_VALUE && WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
    if (file != INVALID_HANDLE_VALUE)
        CloseHandle(file);
    return ok && written == bytes.size();
}

bool readFile(const std::wstring& path, std::string& bytes)
{
    HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return false;
    LARGE_INTEGER size{};
    GetFileSizeEx(file, &size);
    bytes.assign(static_cast<size_t>(size.QuadPart), '\0');
    DWORD read = 0;
    const BOOL ok = bytes.empty() || ReadFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr);
    CloseHandle(file);
    return ok && read == bytes.size();
}

bool fileExists(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

std::string narrow(const std::wstring& text)
{
    std::string out(static_cast<size_t>(WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr)), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), static_cast<int>(out.size()), nullptr, nullptr);
    return out;
}

std::wstring widen(const std::string& text)
{
    std::wstring out(static_cast<size_t>(MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0)), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), static_cast<int>(out.size()));
    return out;
}

std::string patternBytes(size_t size, uint32_t seed)
{
    std::string out(size, '\0');
    uint32_t x = seed ? seed : 0x9E3779B9u;
    for (char& c : out) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        c = static_cast<char>(x & 0xFF);
    }
    return out;
}

} // namespace qvtest
