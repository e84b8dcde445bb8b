// Diagnostic lines of the proxy subsystem on the debugger output. Off unless the process was started
// with QRVL_ENABLE_DEBUG_STRING=TRUE; the flag is read once, when the library is loaded.
#pragma once

#include <cstdarg>
#include <string>

namespace QRVL::ProxyManager {

constexpr int LOG_TRACE = 0;
constexpr int LOG_DEBUG = 1;
constexpr int LOG_INFO = 2;
constexpr int LOG_ERROR = 3;
constexpr int LOG_FATAL = 4;

class ProxyLogger {
public:
    // Messages are cut at this many characters.
    static constexpr size_t kMessageChars = 1024;

    static bool Enabled();
    // Reads the environment variable; what the load-time flag is made of.
    static bool ReadEnabledFlag();

    // printf-style; nothing happens when disabled or when format is null.
    static void Log(int level, const wchar_t* format, ...);
    static void Log(int level, const char* format, ...);
    static void LogV(int level, const wchar_t* format, va_list args);
    static void LogV(int level, const char* format, va_list args);

    // ERROR line for a failed system call, with the thread's last error and the system's text for it.
    static void LogApiFailure(const char* function);

    static const char* LevelTag(int level);
    static std::wstring BuildLine(int level, const wchar_t* message);
    static std::string BuildLine(int level, const char* message);
    static std::wstring FormatText(const wchar_t* format, va_list args);
    static std::string FormatText(const char* format, va_list args);
    // The system's text for an error number, without the trailing line break ("" when unknown).
    static std::wstring SystemErrorText(unsigned long error);
};

// Shorthand used throughout the subsystem.
template <typename... Args>
void Log(int level, const char* format, Args... args)
{
    ProxyLogger::Log(level, format, args...);
}

} // namespace QRVL::ProxyManager
