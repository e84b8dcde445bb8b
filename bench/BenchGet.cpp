// qvbench_get: downloads one or more URLs through the download manager, as any client would, and
// prints machine-readable figures: wall time from start to the last completion, bytes, CPU time and
// the process's memory peaks.
// Usage: qvbench_get --dest DIR [--store FILE] [--save-interval BYTES] [--max-active N] URL...
#include <windows.h>

#include <psapi.h>
#include <shellapi.h>

#include <QvDLM.h>

#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <string>
#include <vector>

namespace {

struct Args {
    std::wstring dest;
    std::wstring store;
    uint64_t saveInterval = 0;
    int maxActive = 0;
    std::vector<std::wstring> urls;
};

bool parseArgs(int argc, wchar_t** argv, Args& out)
{
    for (int i = 1; i < argc; ++i) {
        const std::wstring arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == L"--dest" && hasValue)
            out.dest = argv[++i];
        else if (arg == L"--store" && hasValue)
            out.store = argv[++i];
        else if (arg == L"--save-interval" && hasValue)
            out.saveInterval = std::wcstoull(argv[++i], nullptr, 10);
        else if (arg == L"--max-active" && hasValue)
            out.maxActive = static_cast<int>(std::wcstol(argv[++i], nullptr, 10));
        else if (arg.rfind(L"--", 0) == 0)
            return false;
        else
            out.urls.push_back(arg);
    }
    return !out.dest.empty() && !out.urls.empty();
}

double nowMs()
{
    static LARGE_INTEGER frequency = [] {
        LARGE_INTEGER f;
        QueryPerformanceFrequency(&f);
        return f;
    }();
    LARGE_INTEGER t;
    QueryPerformanceCounter(&t);
    return 1000.0 * static_cast<double>(t.QuadPart) / static_cast<double>(frequency.QuadPart);
}

uint64_t fileTimeTicks(const FILETIME& t) { return (uint64_t(t.dwHighDateTime) << 32) | t.dwLowDateTime; }

double cpuMs()
{
    FILETIME created, exited, kernel, user;
    if (!GetProcessTimes(GetCurrentProcess(), &created, &exited, &kernel, &user))
        return 0;
    return static_cast<double>(fileTimeTicks(kernel) + fileTimeTicks(user)) / 10000.0;
}

PROCESS_MEMORY_COUNTERS_EX memory()
{
    PROCESS_MEMORY_COUNTERS_EX counters{};
    counters.cb = sizeof counters;
    GetProcessMemoryInfo(GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&counters), sizeof counters);
    return counters;
}

int run(const Args& args)
{
    HMODULE resources = LoadLibraryW(L"QvDLMRes.dll");
    DownloadRequestLog* store = DownloadRequestLog::getInstance();
    if (!store || !store->open(args.store.empty() ? nullptr : args.store.c_str())) {
        std::fprintf(stderr, "qvbench_get: cannot open the request store\n");
        return 1;
    }
    DownloadMgr* manager = QvDLM::createDownloadMgr();
    if (!manager) {
        std::fprintf(stderr, "qvbench_get: no download manager\n");
        return 1;
    }
    if (args.maxActive > 0)
        manager->setMaxActive(args.maxActive);

    std::vector<Download*> downloads;
    for (const std::wstring& url : args.urls) {
        DownloadRequest* request = QvDLM::createDownloadRequest();
        request->setUrl(url.c_str(), nullptr, nullptr);
        request->setName(L"bench");
        request->setDestDir(args.dest.c_str());
        if (args.saveInterval)
            request->setSaveInterval(args.saveInterval);
        const unsigned check = manager->checkRequest(request);
        if (check != qvdlm::validation::Ok) {
            std::fprintf(stderr, "qvbench_get: %ls refused (validation result %u)\n", url.c_str(), check);
            QvDLM::destroy(request);
            continue;
        }
        const uint64_t firstBlock = static_cast<uint64_t>(std::max<int64_t>(request->getContentLength(), 0));
        if (!request->getCompressedSize() && request->getBlockCount() == 1 && firstBlock)
            request->setCompressedSize(firstBlock);
        if (!request->isLzma2Package() && !request->isSfxPackage())
            request->setUncompressedSize(request->getCompressedSize());
        if (Download* download = manager->addDownload(request))
            downloads.push_back(download);
        else
            std::fprintf(stderr, "qvbench_get: %ls not added\n", url.c_str());
    }
    if (downloads.size() != args.urls.size()) {
        QvDLM::destroy(manager);
        return 1;
    }

    const PROCESS_MEMORY_COUNTERS_EX before = memory();
    const double cpuBefore = cpuMs();
    const double start = nowMs();
    for (Download* download : downloads)
        manager->startDownload(download);
    // The manager may queue some; it starts them as others complete. Bounded to an hour.
    // Also notes when the first bytes came and when the last one did, to tell start-up and wind-down
    // costs from the transfer itself.
    uint64_t expected = 0;
    for (Download* download : downloads)
        expected += download->getRequest() ? download->getRequest()->getCompressedSize() : 0;
    double firstByte = 0, lastByte = 0;
    bool running = true;
    for (int i = 0; running && i < 3600 * 500; ++i) {
        running = false;
        uint64_t arrived = 0;
        for (Download* download : downloads) {
            if (download->isRunning() || download->getState() == qvdlm::state::Pending)
                running = true;
            arrived += download->getDownloadedSize();
        }
        if (arrived && !firstByte)
            firstByte = nowMs();
        if (expected && arrived >= expected && !lastByte)
            lastByte = nowMs();
        if (running)
            Sleep(2);
    }
    const double end = nowMs();
    const double elapsed = end - start;
    const double cpu = cpuMs() - cpuBefore;

    unsigned completed = 0;
    uint64_t bytes = 0, extracted = 0;
    for (Download* download : downloads) {
        if (download->getState() == qvdlm::state::Completed)
            ++completed;
        else
            std::fprintf(stderr, "qvbench_get: ended as %ls, status 0x%08x\n", qvdlm::stateName(download->getState()),
                         download->getStatus());
        bytes += download->getDownloadedSize();
        extracted += download->getExtractedSize();
    }
    const PROCESS_MEMORY_COUNTERS_EX after = memory();
    std::printf("downloads %zu\ncompleted %u\nelapsed_ms %.1f\nbytes %llu\nextracted %llu\ncpu_ms %.1f\n",
                downloads.size(), completed, elapsed, static_cast<unsigned long long>(bytes),
                static_cast<unsigned long long>(extracted), cpu);
    std::printf("first_byte_ms %.1f\nlast_byte_ms %.1f\n", firstByte ? firstByte - start : 0.0,
                lastByte ? lastByte - start : 0.0);
    std::printf("baseline_working_set %llu\npeak_working_set %llu\nbaseline_private %llu\npeak_private %llu\n",
                static_cast<unsigned long long>(before.WorkingSetSize),
                static_cast<unsigned long long>(after.PeakWorkingSetSize),
                static_cast<unsigned long long>(before.PrivateUsage),
                static_cast<unsigned long long>(after.PeakPagefileUsage));
    std::fflush(stdout);
    QvDLM::destroy(manager);
    if (resources)
        FreeLibrary(resources);
    return completed == downloads.size() ? 0 : 1;
}

} // namespace

int main()
{
    int argc = 0;
    wchar_t** argv = CommandLineToArgvW(GetCommandLineW(), &argc);
    Args args;
    if (!argv || !parseArgs(argc, argv, args)) {
        std::fprintf(stderr,
                     "usage: qvbench_get --dest DIR [--store FILE] [--save-interval BYTES] [--max-active N] URL...\n");
        return 2;
    }
    const int status = run(args);
    LocalFree(argv);
    return status;
}
