// qvbench_lzma: the yardstick for the decoding stage. Reads a package (its blocks in order) into
// memory, then decodes it with LZMA.dll on one thread into a discarded 4 MiB buffer, as fast as the
// SDK can. Only the decoding is timed. Usage: qvbench_lzma FILE...
#include <windows.h>

#include <shellapi.h>

#include <Lzma2Dec.h>

#include <cstdint>
#include <cstdio>
#include <vector>

namespace {

extern "C" {
static void* heapAlloc(ISzAllocPtr, size_t size) { return ::HeapAlloc(::GetProcessHeap(), 0, size ? size : 1); }
static void heapFree(ISzAllocPtr, void* address)
{
    if (address)
        ::HeapFree(::GetProcessHeap(), 0, address);
}
}
const ISzAlloc kAllocator = {heapAlloc, heapFree};

bool appendFile(const wchar_t* path, std::vector<uint8_t>& out)
{
    HANDLE file = CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN,
                              nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return false;
    LARGE_INTEGER size{};
    bool ok = GetFileSizeEx(file, &size) != 0;
    const size_t at = out.size();
    if (ok) {
        out.resize(at + static_cast<size_t>(size.QuadPart));
        size_t done = 0;
        while (ok && done < static_cast<size_t>(size.QuadPart)) {
            DWORD got = 0;
            const DWORD want = static_cast<DWORD>(std::min<size_t>(static_cast<size_t>(size.QuadPart) - done, 1u << 24));
            ok = ReadFile(file, out.data() + at + done, want, &got, nullptr) && got > 0;
            done += got;
        }
    }
    CloseHandle(file);
    return ok;
}

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
        std::fprintf(stderr, "usage: qvbench_lzma FILE...\n");
        return 2;
    }
    std::vector<uint8_t> packed;
    for (int i = 1; i < argc; ++i)
        if (!appendFile(argv[i], packed)) {
            std::fprintf(stderr, "qvbench_lzma: cannot read %ls\n", argv[i]);
            return 1;
        }
    LocalFree(argv);
    if (packed.size() < 2)
        return 1;

    constexpr size_t kOutput = 0x400000;
    std::vector<uint8_t> output(kOutput);
    CLzma2Dec decoder;
    Lzma2Dec_CONSTRUCT(&decoder);
    if (Lzma2Dec_Allocate(&decoder, packed[0], &kAllocator) != SZ_OK) {
        std::fprintf(stderr, "qvbench_lzma: bad property byte 0x%02x\n", packed[0]);
        return 1;
    }
    Lzma2Dec_Init(&decoder);

    const double start = nowMs();
    size_t at = 1;
    uint64_t total = 0;
    ELzmaStatus status = LZMA_STATUS_NOT_SPECIFIED;
    SRes res = SZ_OK;
    for (;;) {
        SizeT produced = kOutput;
        SizeT taken = packed.size() - at;
        res = Lzma2Dec_DecodeToBuf(&decoder, output.data(), &produced, packed.data() + at, &taken, LZMA_FINISH_ANY,
                                   &status);
        at += taken;
        total += produced;
        if (res != SZ_OK || status == LZMA_STATUS_FINISHED_WITH_MARK || (taken == 0 && produced == 0))
            break;
    }
    const double elapsed = nowMs() - start;
    Lzma2Dec_Free(&decoder, &kAllocator);
    std::printf("packed %zu\nunpacked %llu\ndecode_ms %.1f\nfinished %d\n", packed.size(),
                static_cast<unsigned long long>(total), elapsed,
                res == SZ_OK && status == LZMA_STATUS_FINISHED_WITH_MARK ? 1 : 0);
    return res == SZ_OK && status == LZMA_STATUS_FINISHED_WITH_MARK ? 0 : 1;
}
