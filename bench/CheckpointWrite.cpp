// qvbench_checkpoint: how long the decoding stage's checkpoint takes, done as the download job does
// it: ask the record's size, take a heap block, copy the state into it and write it through to the
// disk as the stage's temporary checkpoint file. The stage is first fed the package until its
// dictionary is full (or the package ends). Usage: qvbench_checkpoint PACKAGE-FILE WORK-DIR [REPEATS]
#include <windows.h>

#include <shellapi.h>

#include "common/Win32Raii.h"
#include "control/CheckpointFiles.h"
#include "stream/LZMA2StreamWriterImp.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace {

double nowMs()
{
    LARGE_INTEGER f, t;
    QueryPerformanceFrequency(&f);
    QueryPerformanceCounter(&t);
    return 1000.0 * static_cast<double>(t.QuadPart) / static_cast<double>(f.QuadPart);
}

bool readFile(const wchar_t* path, std::vector<uint8_t>& out, size_t limit)
{
    qv::UniqueFile file(CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    if (!file)
        return false;
    out.resize(limit);
    size_t done = 0;
    for (;;) {
        DWORD got = 0;
        const DWORD want = static_cast<DWORD>(std::min<size_t>(limit - done, 1u << 24));
        if (want == 0 || !ReadFile(file.get(), out.data() + done, want, &got, nullptr) || got == 0)
            break;
        done += got;
    }
    out.resize(done);
    return done > 1;
}

} // namespace

int main()
{
    int argc = 0;
    wchar_t** argv = CommandLineToArgvW(GetCommandLineW(), &argc);
    if (!argv || argc < 3) {
        std::fprintf(stderr, "usage: qvbench_checkpoint PACKAGE-FILE WORK-DIR [REPEATS]\n");
        return 2;
    }
    const std::wstring dir = argv[2];
    const int repeats = argc > 3 ? std::max(1, _wtoi(argv[3])) : 5;
    std::vector<uint8_t> packed;
    if (!readFile(argv[1], packed, size_t(256) << 20)) {
        std::fprintf(stderr, "qvbench_checkpoint: cannot read %ls\n", argv[1]);
        return 1;
    }
    LocalFree(argv);

    const uint8_t property = packed[0];
    const uint64_t dictionary = uint64_t(2 | (property & 1)) << (property / 2 + 11);
    LZMA2StreamWriterImp stage;
    auto* reader = static_cast<StreamReader*>(stage.readerSide());
    std::vector<uint8_t> slot(kLinkBufferSize);
    uint64_t unpacked = 0;
    for (size_t at = 0; at < packed.size() && unpacked < dictionary;) {
        const uint32_t count = static_cast<uint32_t>(std::min<size_t>(kLinkBufferSize, packed.size() - at));
        if (stage.writeBytes(packed.data() + at, count) < 0)
            return 1;
        at += count;
        for (int reads = 0; reads < 100000; ++reads) {
            const uint32_t produced = reader->readBytes(slot.data(), kLinkBufferSize);
            if (produced == UINT32_MAX || reader->lastStatus() != 0)
                return 1;
            if (produced == 0)
                break;
            unpacked += produced;
        }
    }

    std::vector<double> copyTimes, totalTimes;
    uint64_t recordSize = 0;
    for (int i = 0; i < repeats; ++i) {
        const double start = nowMs();
        uint64_t capacity = 0;
        const uint64_t size = stage.saveState(nullptr, &capacity);
        qv::HeapBlock buffer(static_cast<size_t>(size));
        if (size == 0 || !buffer)
            return 1;
        capacity = size;
        if (stage.saveState(buffer.as<StreamStateHeader>(), &capacity) != size)
            return 1;
        const double copied = nowMs();
        const uint32_t id = static_cast<uint32_t>(i + 1);
        if (!qv::CheckpointFiles::writeTemp(dir, id, L"Lzma", buffer.get(), static_cast<size_t>(size)))
            return 1;
        const double written = nowMs();
        copyTimes.push_back(copied - start);
        totalTimes.push_back(written - start);
        recordSize = size;
        DeleteFileW(qv::CheckpointFiles::tempPath(dir, id, L"Lzma").c_str());
    }
    std::sort(copyTimes.begin(), copyTimes.end());
    std::sort(totalTimes.begin(), totalTimes.end());
    std::printf("dictionary %llu\nrecord %llu\nunpacked %llu\ncopy_ms %.1f\nwrite_ms %.1f\nwrite_min_ms %.1f\n",
                static_cast<unsigned long long>(dictionary), static_cast<unsigned long long>(recordSize),
                static_cast<unsigned long long>(unpacked), copyTimes[copyTimes.size() / 2],
                totalTimes[totalTimes.size() / 2], totalTimes.front());
    return 0;
}
