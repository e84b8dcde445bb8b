// qvbench_wininet: the ceiling that WinINet sets for the HTTP source. Fetches a URL with the same
// kind of request handle and reads it into one buffer of the link's size, discarding the data, and
// reports how many bytes each InternetReadFile call returned. Usage: qvbench_wininet URL [CAPACITY]
#include <windows.h>

#include <shellapi.h>
#include <wininet.h>

#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <vector>

namespace {

double nowMs()
{
    LARGE_INTEGER f, t;
    QueryPerformanceFrequency(&f);
    QueryPerformanceCounter(&t);
    return 1000.0 * static_cast<double>(t.QuadPart) / static_cast<double>(f.QuadPart);
}

} // namespace

int main()
{
    int argc = 0;
    wchar_t** argv = CommandLineToArgvW(GetCommandLineW(), &argc);
    if (!argv || argc < 2) {
        std::fprintf(stderr, "usage: qvbench_wininet URL [CAPACITY]\n");
        return 2;
    }
    const DWORD capacity = argc > 2 ? static_cast<DWORD>(std::wcstoul(argv[2], nullptr, 10)) : 0x400000;
    std::vector<uint8_t> buffer(capacity ? capacity : 1);
    const double start = nowMs();
    HINTERNET session = InternetOpenW(L"WinINet/1.0", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0);
    HINTERNET request = session ? InternetOpenUrlW(session, argv[1], nullptr, 0,
                                                   INTERNET_FLAG_NO_CACHE_WRITE | INTERNET_FLAG_NO_UI |
                                                       INTERNET_FLAG_PRAGMA_NOCACHE | INTERNET_FLAG_NO_COOKIES,
                                                   0)
                                : nullptr;
    if (!request) {
        std::fprintf(stderr, "qvbench_wininet: cannot open %ls (error %lu)\n", argv[1], GetLastError());
        return 1;
    }
    const double opened = nowMs();
    uint64_t total = 0, calls = 0;
    DWORD largest = 0;
    for (;;) {
        DWORD read = 0;
        if (!InternetReadFile(request, buffer.data(), capacity, &read)) {
            std::fprintf(stderr, "qvbench_wininet: read failed (error %lu)\n", GetLastError());
            return 1;
        }
        if (read == 0)
            break;
        ++calls;
        total += read;
        if (read > largest)
            largest = read;
    }
    const double done = nowMs();
    InternetCloseHandle(request);
    InternetCloseHandle(session);
    LocalFree(argv);
    std::printf("bytes %llu\nreads %llu\naverage_read %.0f\nlargest_read %lu\nopen_ms %.1f\nread_ms %.1f\n",
                static_cast<unsigned long long>(total), static_cast<unsigned long long>(calls),
                calls ? static_cast<double>(total) / static_cast<double>(calls) : 0.0, largest, opened - start,
                done - opened);
    return 0;
}
