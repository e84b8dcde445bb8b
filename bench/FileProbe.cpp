// qvbench_files: the platform's floor per extracted file. Writes FILES files of BYTES bytes into 50
// folders that already exist under DIR, one thread, in several ways, and prints the time per file:
//   create_write_close   CreateFileW + WriteFile + CloseHandle
//   with_time_on_handle  the same plus SetFileTime on the open handle
//   with_flush           the same plus FlushFileBuffers before the close
//   reopen_for_time      create, write, close, then open again only to set the time
//   commit_open_reopen   an attribute read, a commit-mode ("wbc+") C runtime open, write, close,
//                        then open again for the time
//   batch_flush_N        create, write, time on the handle; kept open and flushed and closed N at a
//                        time (durability at a checkpoint instead of at each file)
// Usage: qvbench_files DIR [FILES] [BYTES]
#include <windows.h>

#include <shellapi.h>

#include <io.h>
#include <share.h>

#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <string>
#include <vector>

namespace {

constexpr int kFolders = 50;

double nowMs()
{
    LARGE_INTEGER f, t;
    QueryPerformanceFrequency(&f);
    QueryPerformanceCounter(&t);
    return 1000.0 * static_cast<double>(t.QuadPart) / static_cast<double>(f.QuadPart);
}

FILETIME someTime()
{
    FILETIME t;
    t.dwLowDateTime = 0x12345678;
    t.dwHighDateTime = 0x01D00000;
    return t;
}

struct Probe {
    std::wstring root;
    std::vector<char> data;
    int files = 0;

    std::wstring path(const wchar_t* run, int i) const
    {
        return root + L"\\" + run + L"\\d" + std::to_wstring(i % kFolders) + L"\\f" + std::to_wstring(i) + L".bin";
    }

    bool makeFolders(const wchar_t* run) const
    {
        const std::wstring base = root + L"\\" + run;
        if (!CreateDirectoryW(base.c_str(), nullptr) && GetLastError() != ERROR_ALREADY_EXISTS)
            return false;
        for (int d = 0; d < kFolders; ++d) {
            const std::wstring folder = base + L"\\d" + std::to_wstring(d);
            if (!CreateDirectoryW(folder.c_str(), nullptr) && GetLastError() != ERROR_ALREADY_EXISTS)
                return false;
        }
        return true;
    }

    HANDLE create(const std::wstring& p) const
    {
        return CreateFileW(p.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                           CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    }

    bool write(HANDLE h) const
    {
        DWORD written = 0;
        return WriteFile(h, data.data(), static_cast<DWORD>(data.size()), &written, nullptr) &&
               written == data.size();
    }

    // mode: 0 plain, 1 time on handle, 2 time and flush, 3 reopen for time
    bool simple(const wchar_t* run, int mode) const
    {
        const FILETIME t = someTime();
        for (int i = 0; i < files; ++i) {
            const std::wstring p = path(run, i);
            HANDLE h = create(p);
            if (h == INVALID_HANDLE_VALUE || !write(h))
                return false;
            if (mode == 1 || mode == 2)
                SetFileTime(h, &t, &t, &t);
            if (mode == 2)
                FlushFileBuffers(h);
            CloseHandle(h);
            if (mode == 3) {
                if (!setTimeByReopening(p, t))
                    return false;
            }
        }
        return true;
    }

    // Opens the closed file again just to set its times, as a sink that closes first must.
    static bool setTimeByReopening(const std::wstring& p, const FILETIME& t)
    {
        HANDLE h = CreateFileW(p.c_str(), GENERIC_WRITE, FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                               FILE_ATTRIBUTE_NORMAL, nullptr);
        if (h == INVALID_HANDLE_VALUE)
            return false;
        SetFileTime(h, &t, &t, &t);
        CloseHandle(h);
        return true;
    }

    bool commitOpen(const wchar_t* run) const
    {
        const FILETIME t = someTime();
        for (int i = 0; i < files; ++i) {
            const std::wstring p = path(run, i);
            GetFileAttributesW(p.c_str());
            FILE* f = _wfsopen(p.c_str(), L"wbc+", _SH_DENYNO);
            if (!f || std::fwrite(data.data(), 1, data.size(), f) != data.size())
                return false;
            std::fclose(f);
            if (!setTimeByReopening(p, t))
                return false;
        }
        return true;
    }

    bool batch(const wchar_t* run, size_t every) const
    {
        const FILETIME t = someTime();
        std::vector<HANDLE> pending;
        auto flushAll = [&pending] {
            for (HANDLE h : pending) {
                FlushFileBuffers(h);
                CloseHandle(h);
            }
            pending.clear();
        };
        for (int i = 0; i < files; ++i) {
            HANDLE h = create(path(run, i));
            if (h == INVALID_HANDLE_VALUE || !write(h))
                return false;
            SetFileTime(h, &t, &t, &t);
            pending.push_back(h);
            if (pending.size() >= every)
                flushAll();
        }
        flushAll();
        return true;
    }
};

} // namespace

int main()
{
    int argc = 0;
    wchar_t** argv = CommandLineToArgvW(GetCommandLineW(), &argc);
    if (!argv || argc < 2) {
        std::fprintf(stderr, "usage: qvbench_files DIR [FILES] [BYTES]\n");
        return 2;
    }
    Probe probe;
    probe.root = argv[1];
    probe.files = argc > 2 ? static_cast<int>(std::wcstol(argv[2], nullptr, 10)) : 2000;
    probe.data.assign(argc > 3 ? static_cast<size_t>(std::wcstoul(argv[3], nullptr, 10)) : 30000, 'x');
    if (probe.files <= 0)
        return 2;

    struct Run {
        const wchar_t* name;
        int kind; // 0..3 simple modes, 4 commit open, 5 batch
        size_t every;
    };
    const Run runs[] = {
        {L"create_write_close", 0, 0}, {L"with_time_on_handle", 1, 0}, {L"with_flush", 2, 0},
        {L"reopen_for_time", 3, 0},    {L"commit_open_reopen", 4, 0},  {L"batch_flush_256", 5, 256},
    };
    std::printf("files %d\nbytes %zu\n", probe.files, probe.data.size());
    for (const Run& run : runs) {
        if (!probe.makeFolders(run.name)) {
            std::fprintf(stderr, "qvbench_files: cannot make folders under %ls (error %lu)\n", probe.root.c_str(),
                         GetLastError());
            return 1;
        }
        const double start = nowMs();
        bool ok = false;
        if (run.kind <= 3)
            ok = probe.simple(run.name, run.kind);
        else if (run.kind == 4)
            ok = probe.commitOpen(run.name);
        else
            ok = probe.batch(run.name, run.every);
        const double elapsed = nowMs() - start;
        if (!ok) {
            std::fprintf(stderr, "qvbench_files: %ls failed (error %lu)\n", run.name, GetLastError());
            return 1;
        }
        std::printf("%ls_ms %.3f\n", run.name, elapsed / probe.files);
    }
    LocalFree(argv);
    return 0;
}
