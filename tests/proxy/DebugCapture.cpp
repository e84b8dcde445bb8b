// proxy_debug_capture <output file> <program> [arguments...]
// Runs the program as a debuggee and writes every debug string it emits to the output file (UTF-8,
// as emitted). Exits with the program's exit code; 1000 and above for its own failures.
#include <windows.h>

#include <cstdio>
#include <string>

namespace {

constexpr ULONGLONG kDeadlineMs = 50000;
constexpr DWORD kPrintExceptionA = 0x40010006;    // DBG_PRINTEXCEPTION_C
constexpr DWORD kPrintExceptionW = 0x4001000A;    // DBG_PRINTEXCEPTION_WIDE_C

std::wstring quote(const std::wstring& arg)
{
    if (!arg.empty() && arg.find_first_of(L" \t\"") == std::wstring::npos)
        return arg;
    std::wstring out = L"\"";
    for (size_t i = 0; i < arg.size(); ++i) {
        size_t slashes = 0;
        while (i < arg.size() && arg[i] == L'\\') {
            ++slashes;
            ++i;
        }
        if (i == arg.size()) {
            out.append(slashes * 2, L'\\');
            break;
        }
        if (arg[i] == L'"')
            out.append(slashes * 2 + 1, L'\\');
        else
            out.append(slashes, L'\\');
        out.push_back(arg[i]);
    }
    out.push_back(L'"');
    return out;
}

std::string utf8(const std::wstring& wide)
{
    if (wide.empty())
        return std::string();
    const int n = WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), nullptr, 0, nullptr,
                                      nullptr);
    std::string out(static_cast<size_t>(n > 0 ? n : 0), '\0');
    if (n > 0)
        WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), out.data(), n, nullptr, nullptr);
    return out;
}

// Reads a debuggee string of `length` characters (including the terminator) at `address`.
std::string readString(HANDLE process, const void* address, size_t length, bool wide)
{
    if (!address || length == 0 || length > 65536)
        return std::string();
    if (wide) {
        std::wstring text(length, L'\0');
        SIZE_T got = 0;
        if (!ReadProcessMemory(process, address, text.data(), length * sizeof(wchar_t), &got))
            return std::string();
        text.resize(got / sizeof(wchar_t));
        const size_t end = text.find(L'\0');
        if (end != std::wstring::npos)
            text.resize(end);
        return utf8(text);
    }
    std::string text(length, '\0');
    SIZE_T got = 0;
    if (!ReadProcessMemory(process, address, text.data(), length, &got))
        return std::string();
    text.resize(got);
    const size_t end = text.find('\0');
    if (end != std::string::npos)
        text.resize(end);
    return text;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: proxy_debug_capture <output file> <program> [arguments...]\n");
        return 1000;
    }
    std::wstring commandLine;
    for (int i = 2; i < argc; ++i) {
        if (!commandLine.empty())
            commandLine += L' ';
        commandLine += quote(argv[i]);
    }

    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION child = {};
    if (!CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, DEBUG_ONLY_THIS_PROCESS, nullptr,
                        nullptr, &startup, &child)) {
        std::fprintf(stderr, "proxy_debug_capture: cannot start the program (error %lu)\n", GetLastError());
        return 1001;
    }

    std::string captured;
    DWORD exitCode = 1002;
    bool exited = false;
    const ULONGLONG deadline = GetTickCount64() + kDeadlineMs;
    while (!exited && GetTickCount64() < deadline) {
        DEBUG_EVENT event = {};
        if (!WaitForDebugEvent(&event, 500))
            continue;
        DWORD continueStatus = DBG_CONTINUE;
        switch (event.dwDebugEventCode) {
        case CREATE_PROCESS_DEBUG_EVENT:
            if (event.u.CreateProcessInfo.hFile)
                CloseHandle(event.u.CreateProcessInfo.hFile);
            break;
        case LOAD_DLL_DEBUG_EVENT:
            if (event.u.LoadDll.hFile)
                CloseHandle(event.u.LoadDll.hFile);
            break;
        case OUTPUT_DEBUG_STRING_EVENT: {
            const OUTPUT_DEBUG_STRING_INFO& info = event.u.DebugString;
            captured += readString(child.hProcess, info.lpDebugStringData, info.nDebugStringLength,
                                   info.fUnicode != 0);
            break;
        }
        case EXCEPTION_DEBUG_EVENT: {
            const EXCEPTION_RECORD& record = event.u.Exception.ExceptionRecord;
            if (record.ExceptionCode == kPrintExceptionW && record.NumberParameters >= 2) {
                captured += readString(child.hProcess, reinterpret_cast<const void*>(record.ExceptionInformation[1]),
                                       static_cast<size_t>(record.ExceptionInformation[0]), true);
            } else if (record.ExceptionCode == kPrintExceptionA && record.NumberParameters >= 2) {
                captured += readString(child.hProcess, reinterpret_cast<const void*>(record.ExceptionInformation[1]),
                                       static_cast<size_t>(record.ExceptionInformation[0]), false);
            } else if (record.ExceptionCode != EXCEPTION_BREAKPOINT) {
                continueStatus = DBG_EXCEPTION_NOT_HANDLED;
            }
            break;
        }
        case EXIT_PROCESS_DEBUG_EVENT:
            exitCode = event.u.ExitProcess.dwExitCode;
            exited = true;
            break;
        default:
            break;
        }
        ContinueDebugEvent(event.dwProcessId, event.dwThreadId, continueStatus);
    }
    if (!exited) {
        TerminateProcess(child.hProcess, 1003);
        exitCode = 1003;
    }
    CloseHandle(child.hThread);
    CloseHandle(child.hProcess);

    FILE* out = nullptr;
    if (_wfopen_s(&out, argv[1], L"wb") != 0 || !out)
        return 1004;
    std::fwrite(captured.data(), 1, captured.size(), out);
    std::fclose(out);
    return static_cast<int>(exitCode);
}
