// qvpack: makes a QvDLM package from a folder: tar (ustar, GNU long names) -> LZMA2 with the property
// byte in front -> optionally split into numbered blocks. Prints the URL to hand to the library.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include "Lzma2Packer.h"
#include "TarWriter.h"

namespace fs = std::filesystem;

namespace {

// Windows paths beyond MAX_PATH work only in their "\\?\" form.
fs::path usablePath(const fs::path& p)
{
#ifdef _WIN32
    const std::wstring full = fs::absolute(p).lexically_normal().wstring();
    if (full.rfind(L"\\\\", 0) == 0)
        return full.rfind(L"\\\\?\\", 0) == 0 ? fs::path(full) : fs::path(L"\\\\?\\UNC\\" + full.substr(2));
    return fs::path(L"\\\\?\\" + full);
#else
    return p;
#endif
}

constexpr const char* kUsage =
    "usage: qvpack FOLDER OUTPUT-FOLDER [options]\n"
    "  --name STEM          package name (default: the folder's name)\n"
    "  --block-size SIZE    split into blocks of SIZE bytes: STEM_001_NNN.tar.lzma2 ... (K, M, G suffixes)\n"
    "  --dict SIZE          LZMA2 dictionary size (default 8M; 64K to 64M)\n"
    "  --level N            compression level 0-9 (default 6)\n"
    "  --base-url URL       where the package will be served; the URL to download is printed\n"
    "  --exe PATH           add a dlm.ini that asks the client to run PATH after download\n"
    "  --exe-param TEXT     parameters for --exe\n"
    "  --auto-open          mark the program to be run automatically\n";

bool parseSize(const char* text, uint64_t& out)
{
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(text, &end, 10);
    if (errno || end == text)
        return false;
    uint64_t scale = 1;
    if (*end) {
        switch (*end) {
        case 'k': case 'K': scale = 1ull << 10; break;
        case 'm': case 'M': scale = 1ull << 20; break;
        case 'g': case 'G': scale = 1ull << 30; break;
        default: return false;
        }
        ++end;
        if (*end == 'i' && end[1] == 'B')
            end += 2;
        else if (*end == 'B')
            ++end;
        if (*end)
            return false;
    }
    out = value * scale;
    return true;
}

int fail(const std::string& message)
{
    std::fprintf(stderr, "qvpack: %s\n", message.c_str());
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    const fs::path source = usablePath(argv[1]);
    const fs::path output = usablePath(argv[2]);
    qvpack::PackOptions options;
    options.stem = fs::absolute(argv[1]).lexically_normal().filename().string();
    if (options.stem.empty())
        options.stem = fs::absolute(argv[1]).lexically_normal().parent_path().filename().string();
    std::string baseUrl, exePath, exeParam;
    bool autoOpen = false;

    for (int i = 3; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        uint64_t size = 0;
        if (arg == "--name" && hasValue) {
            options.stem = argv[++i];
        } else if (arg == "--block-size" && hasValue && parseSize(argv[i + 1], size) && size > 0) {
            options.blockSize = size;
            ++i;
        } else if (arg == "--dict" && hasValue && parseSize(argv[i + 1], size) && size >= (64u << 10) &&
                   size <= (64u << 20)) {
            options.dictionarySize = static_cast<uint32_t>(size);
            ++i;
        } else if (arg == "--level" && hasValue && std::strlen(argv[i + 1]) == 1 && argv[i + 1][0] >= '0' &&
                   argv[i + 1][0] <= '9') {
            options.level = argv[++i][0] - '0';
        } else if (arg == "--base-url" && hasValue) {
            baseUrl = argv[++i];
        } else if (arg == "--exe" && hasValue) {
            exePath = argv[++i];
        } else if (arg == "--exe-param" && hasValue) {
            exeParam = argv[++i];
        } else if (arg == "--auto-open") {
            autoOpen = true;
        } else {
            std::fprintf(stderr, "qvpack: bad option or value: %s\n%s", arg.c_str(), kUsage);
            return 2;
        }
    }

    std::error_code ec;
    if (!fs::is_directory(source, ec))
        return fail("not a folder: " + source.string());
    fs::create_directories(output, ec);
    if (ec)
        return fail("cannot create " + output.string() + ": " + ec.message());

    qvpack::ExtraEntry launch;
    const qvpack::ExtraEntry* extra = nullptr;
    if (!exePath.empty()) {
        launch.name = "dlm.ini";
        launch.content = "[DLM_LAUNCH]\r\nEXE_PATH=" + exePath + "\r\nEXE_PARAM=" + exeParam +
                         "\r\nAUTO_OPEN=" + (autoOpen ? "1" : "0") + "\r\n";
        extra = &launch;
    }

    const fs::path tarPath = output / (options.stem + ".tar.tmp");
    qvpack::TarStats tarStats;
    std::string error;
    {
        std::ofstream tar(tarPath, std::ios::binary | std::ios::trunc);
        if (!tar)
            return fail("cannot write " + tarPath.string());
        if (!qvpack::writeTar(source, extra, tar, tarStats, error)) {
            tar.close();
            fs::remove(tarPath, ec);
            return fail(error);
        }
    }

    qvpack::PackResult result;
    bool packed = false;
    {
        std::ifstream tar(tarPath, std::ios::binary);
        packed = tar && qvpack::packLzma2(tar, tarStats.bytes, output, options, result, error);
    }
    fs::remove(tarPath, ec);
    if (!packed)
        return fail(error.empty() ? "cannot read the tar stream back" : error);

    std::printf("files %llu, folders %llu, links %llu\n", static_cast<unsigned long long>(tarStats.files),
                static_cast<unsigned long long>(tarStats.folders), static_cast<unsigned long long>(tarStats.links));
    std::printf("uncompressed size %llu\ncompressed size %llu\nproperty byte 0x%02x\nblocks %zu\n",
                static_cast<unsigned long long>(tarStats.bytes),
                static_cast<unsigned long long>(result.compressedSize), result.propertyByte, result.files.size());
    for (const auto& f : result.files)
        std::printf("block %s\n", f.filename().string().c_str());
    if (!baseUrl.empty()) {
        while (!baseUrl.empty() && baseUrl.back() == '/')
            baseUrl.pop_back();
        std::printf("url %s/%s\n", baseUrl.c_str(), result.files.front().filename().string().c_str());
    }
    return 0;
}
