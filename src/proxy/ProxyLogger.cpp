#include "proxy/ProxyLogger.h"

#include <windows.h>

#include <cstdio>
#include <cwchar>

#include "common/Win32Raii.h"

namespace QRVL::ProxyManager {

namespace {

constexpr char kPrefix[] = "Quorvel   QrvlProxyManager   ";
constexpr char kTagGap[] = "   ";

const bool g_enabled = ProxyLogger::ReadEnabledFlag();

std::wstring WidenAscii(const char* text)
{
    std::wstring wide;
    for (; *text; ++text)
        wide.push_back(static_cast<wchar_t>(static_cast<unsigned char>(*text)));
    return wide;
}

} // namespace

bool ProxyLogger::Enabled() { return g_enabled; }

bool ProxyLogger::ReadEnabledFlag()
{
    wchar_t value[64];
    const DWORD n = GetEnvironmentVariableW(L"QRVL_ENABLE_DEBUG_STRING", value, static_cast<DWORD>(std::size(value)));
    if (n == 0 || n >= std::size(value))
        return false;
    return _wcsicmp(value, L"TRUE") == 0;
}

const char* ProxyLogger::LevelTag(int level)
{
    switch (level) {
    case LOG_TRACE: return "[TRACE]";
    case LOG_DEBUG: return "[DEBUG]";
    case LOG_ERROR: return "[ERROR]";
    case LOG_FATAL: return "[FATAL]";
    default: return "[INFO]";
    }
}

std::wstring ProxyLogger::BuildLine(int level, const wchar_t* message)
{
    std::wstring line = WidenAscii(kPrefix) + WidenAscii(LevelTag(level)) + WidenAscii(kTagGap);
    line += message;
    line += L'\n';
    return line;
}

std::string ProxyLogger::BuildLine(int level, const char* message)
{
    std::string line = std::string(kPrefix) + LevelTag(level) + kTagGap;
    line += message;
    line += '\n';
    return line;
}

std::wstring ProxyLogger::FormatText(const wchar_t* format, va_list args)
{
    wchar_t buffer[kMessageChars];
    buffer[0] = L'\0';
    _vsnwprintf_s(buffer, kMessageChars, _TRUNCATE, format, args);
    buffer[kMessageChars - 1] = L'\0';
    return buffer;
}

std::string ProxyLogger::FormatText(const char* format, va_list args)
{
    char buffer[kMessageChars];
    buffer[0] = '\0';
    _vsnprintf_s(buffer, kMessageChars, _TRUNCATE, format, args);
    buffer[kMessageChars - 1] = '\0';
    return buffer;
}

void ProxyLogger::LogV(int level, const wchar_t* format, va_list args)
{
    if (!g_enabled || !format)
        return;
    OutputDebugStringW(BuildLine(level, FormatText(format, args).c_str()).c_str());
}

void ProxyLogger::LogV(int level, const char* format, va_list args)
{
    if (!g_enabled || !format)
        return;
    OutputDebugStringA(BuildLine(level, FormatText(format, args).c_str()).c_str());
}

void ProxyLogger::Log(int level, const wchar_t* format, ...)
{
    va_list args;
    va_start(args, format);
    LogV(level, format, args);
    va_end(args);
}

void ProxyLogger::Log(int level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    LogV(level, format, args);
    va_end(args);
}

std::wstring ProxyLogger::SystemErrorText(unsigned long error)
{
    wchar_t* text = nullptr;
    const DWORD n = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS |
                                       FORMAT_MESSAGE_FROM_SYSTEM,
                                   nullptr, error, LANG_USER_DEFAULT, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
    qv::UniqueLocal owner(text);
    if (n == 0 || !text)
        return std::wstring();
    std::wstring result(text, n);
    while (!result.empty() && (result.back() == L'\r' || result.back() == L'\n' || result.back() == L' '))
        result.pop_back();
    return result;
}

void ProxyLogger::LogApiFailure(const char* function)
{
    const DWORD error = GetLastError();
    if (!g_enabled)
        return;
    const std::wstring name = WidenAscii(function ? function : "");
    Log(LOG_ERROR, L"%ls() API failed. Error:%lu Description:%ls", name.c_str(), error,
        SystemErrorText(error).c_str());
}

} // namespace QRVL::ProxyManager
