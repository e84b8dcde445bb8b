#include "TarWriter.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <system_error>
#include <vector>

#ifdef _WIN32
#include <windows.h>
#endif

namespace fs = std::filesystem;

namespace qvpack {

namespace {

constexpr size_t kBlock = 512;
constexpr uint64_t kMaxOctalSize = 077777777777ull; // 11 octal digits

using Block = std::array<char, kBlock>;

void putOctal(char* field, size_t width, uint64_t value)
{
    // width - 1 digits and a NUL, as GNU tar writes them.
    std::snprintf(field, width, "%0*llo", static_cast<int>(width - 1), static_cast<unsigned long long>(value));
}

class TarStream {
public:
    explicit TarStream(std::ostream& out) : out_(out) {}

    void header(const std::string& name, char type, uint64_t size, uint32_t mode, int64_t mtime,
                const std::string& linkName)
    {
        if (name.size() > 100)
            longEntry('L', name);
        if (linkName.size() > 100)
            longEntry('K', linkName);
        Block h{};
        std::memcpy(h.data(), name.data(), std::min<size_t>(name.size(), 100));
        putOctal(&h[100], 8, mode & 07777);
        putOctal(&h[108], 8, 0);
        putOctal(&h[116], 8, 0);
        putOctal(&h[124], 12, size);
        putOctal(&h[136], 12, mtime < 0 ? 0 : static_cast<uint64_t>(mtime));
        h[156] = type;
        std::memcpy(&h[157], linkName.data(), std::min<size_t>(linkName.size(), 100));
        std::memcpy(&h[257], "ustar  ", 8); // GNU magic and version
        std::memcpy(&h[265], "root", 4);
        std::memcpy(&h[297], "root", 4);
        finish(h);
    }

    void data(const char* bytes, size_t size)
    {
        out_.write(bytes, static_cast<std::streamsize>(size));
        written_ += size;
    }

    void pad()
    {
        const size_t tail = static_cast<size_t>(written_ % kBlock);
        if (tail) {
            static const Block zero{};
            data(zero.data(), kBlock - tail);
        }
    }

    void end()
    {
        static const Block zero{};
        data(zero.data(), kBlock);
        data(zero.data(), kBlock);
    }

    uint64_t written() const { return written_; }

private:
    void longEntry(char type, const std::string& text)
    {
        Block h{};
        std::memcpy(h.data(), "././@LongLink", 13);
        putOctal(&h[100], 8, 0644);
        putOctal(&h[108], 8, 0);
        putOctal(&h[116], 8, 0);
        putOctal(&h[124], 12, text.size() + 1);
        putOctal(&h[136], 12, 0);
        h[156] = type;
        std::memcpy(&h[257], "ustar  ", 8);
        finish(h);
        data(text.c_str(), text.size() + 1);
        pad();
    }

    void finish(Block& h)
    {
        std::memset(&h[148], ' ', 8);
        unsigned sum = 0;
        for (char c : h)
            sum += static_cast<unsigned char>(c);
        std::snprintf(&h[148], 7, "%06o", sum);
        h[155] = ' ';
        data(h.data(), kBlock);
    }

    std::ostream& out_;
    uint64_t written_ = 0;
};

std::string utf8(const fs::path& p)
{
    const std::u8string text = p.generic_u8string();
    return std::string(text.begin(), text.end());
}

bool copyFile(TarStream& tar, const fs::path& p, uint64_t size, std::string& error)
{
    std::ifstream in(p, std::ios::binary);
    if (!in) {
        error = "cannot open " + p.string();
        return false;
    }
    std::vector<char> buffer(1 << 20);
    uint64_t left = size;
    while (left > 0) {
        const size_t chunk = static_cast<size_t>(std::min<uint64_t>(left, buffer.size()));
        in.read(buffer.data(), static_cast<std::streamsize>(chunk));
        if (in.gcount() != static_cast<std::streamsize>(chunk)) {
            error = "file changed while packing: " + p.string();
            return false;
        }
        tar.data(buffer.data(), chunk);
        left -= chunk;
    }
    tar.pad();
    return true;
}

struct FolderEntry {
    fs::path path;
    std::string name; // UTF-8
    bool folder = false;
    bool symlink = false;
    uint64_t size = 0;
    int64_t mtime = 0;
    uint32_t mode = 0644;
};

#ifdef _WIN32
// The C++ library cannot list folders beyond MAX_PATH on Windows; the system can, in "\\?\" form.
bool listFolder(const fs::path& folder, std::vector<FolderEntry>& out, std::string& error)
{
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW((folder.wstring() + L"\\*").c_str(), &data);
    if (find == INVALID_HANDLE_VALUE) {
        error = "cannot list " + folder.string();
        return false;
    }
    do {
        const std::wstring name = data.cFileName;
        if (name == L"." || name == L"..")
            continue;
        FolderEntry e;
        e.path = folder / name;
        e.name = utf8(fs::path(name));
        e.folder = (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
        e.size = (static_cast<uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
        const uint64_t ticks = (static_cast<uint64_t>(data.ftLastWriteTime.dwHighDateTime) << 32) |
                               data.ftLastWriteTime.dwLowDateTime;
        e.mtime = ticks > 116444736000000000ull ? static_cast<int64_t>((ticks - 116444736000000000ull) / 10000000) : 0;
        const bool readOnly = (data.dwFileAttributes & FILE_ATTRIBUTE_READONLY) != 0;
        e.mode = e.folder ? 0755 : (readOnly ? 0444 : 0644);
        out.push_back(std::move(e));
    } while (FindNextFileW(find, &data));
    FindClose(find);
    return true;
}
#else
int64_t unixTime(const fs::path& p, bool symlink)
{
    std::error_code ec;
    const auto t = symlink ? fs::file_time_type{} : fs::last_write_time(p, ec);
    if (ec || symlink)
        return 0;
    const auto sys = std::chrono::file_clock::to_sys(t);
    return std::chrono::duration_cast<std::chrono::seconds>(sys.time_since_epoch()).count();
}

uint32_t modeOf(const fs::file_status& st, bool folder)
{
    const auto perms = static_cast<uint32_t>(st.permissions()) & 07777;
    // Windows reports only read-only or not: give folders and files the usual Unix modes.
    if (perms == 0)
        return folder ? 0755 : 0644;
    return perms;
}

bool listFolder(const fs::path& folder, std::vector<FolderEntry>& out, std::string& error)
{
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        FolderEntry e;
        e.path = it->path();
        e.name = utf8(e.path.filename());
        const fs::file_status st = it->symlink_status();
        e.symlink = fs::is_symlink(st);
        e.folder = !e.symlink && fs::is_directory(st);
        if (!e.symlink && !e.folder && !fs::is_regular_file(st))
            continue; // sockets, devices and pipes have no place in a package
        e.size = e.folder || e.symlink ? 0 : it->file_size();
        e.mtime = e.symlink ? 0 : unixTime(e.path, false);
        e.mode = modeOf(st, e.folder);
        out.push_back(std::move(e));
    }
    if (ec) {
        error = "cannot list " + folder.string() + ": " + ec.message();
        return false;
    }
    return true;
}
#endif

// prefix: the archive name of folder, with a trailing "/" (empty for the root).
bool writeTree(TarStream& tar, const fs::path& folder, const std::string& prefix, TarStats& stats, std::string& error)
{
    std::vector<FolderEntry> entries;
    if (!listFolder(folder, entries, error))
        return false;
    std::sort(entries.begin(), entries.end(),
              [](const FolderEntry& a, const FolderEntry& b) { return a.name < b.name; });

    for (const auto& e : entries) {
        const std::string name = prefix + e.name;
        if (e.symlink) {
            tar.header(name, '2', 0, 0777, 0, utf8(fs::read_symlink(e.path)));
            ++stats.links;
        } else if (e.folder) {
            tar.header(name + "/", '5', 0, e.mode, e.mtime, "");
            ++stats.folders;
            if (!writeTree(tar, e.path, name + "/", stats, error))
                return false;
        } else {
            if (e.size > kMaxOctalSize) {
                error = "file too large for the package format (8 GiB or more): " + e.path.string();
                return false;
            }
            tar.header(name, '0', e.size, e.mode, e.mtime, "");
            if (!copyFile(tar, e.path, e.size, error))
                return false;
            ++stats.files;
        }
    }
    return true;
}

} // namespace

bool writeTar(const fs::path& root, const ExtraEntry* extra, std::ostream& out, TarStats& stats, std::string& error)
{
    TarStream tar(out);
    if (extra) {
        const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                             std::chrono::system_clock::now().time_since_epoch()).count();
        tar.header(extra->name, '0', extra->content.size(), 0644, now, "");
        tar.data(extra->content.data(), extra->content.size());
        tar.pad();
        ++stats.files;
    }
    if (!writeTree(tar, root, std::string(), stats, error))
        return false;
    tar.end();
    stats.bytes = tar.written();
    if (!out) {
        error = "write failed";
        return false;
    }
    return true;
}

} // namespace qvpack
