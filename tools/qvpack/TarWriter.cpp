#include "TarWriter.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <system_error>
#include <vector>

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

std::string utf8(const fs::path& p)
{
    const std::u8string text = p.generic_u8string();
    return std::string(text.begin(), text.end());
}

std::string archiveName(const fs::path& root, const fs::path& p) { return utf8(p.lexically_relative(root)); }

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

bool writeTree(TarStream& tar, const fs::path& root, const fs::path& folder, TarStats& stats, std::string& error)
{
    std::vector<fs::directory_entry> entries;
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec))
        entries.push_back(*it);
    if (ec) {
        error = "cannot list " + folder.string() + ": " + ec.message();
        return false;
    }
    std::sort(entries.begin(), entries.end(),
              [](const fs::directory_entry& a, const fs::directory_entry& b) { return a.path() < b.path(); });

    for (const auto& entry : entries) {
        const fs::path& p = entry.path();
        const std::string name = archiveName(root, p);
        const fs::file_status st = entry.symlink_status();
        if (fs::is_symlink(st)) {
            const std::string target = utf8(fs::read_symlink(p));
            tar.header(name, '2', 0, 0777, 0, target);
            ++stats.links;
        } else if (fs::is_directory(st)) {
            tar.header(name + "/", '5', 0, modeOf(st, true), unixTime(p, false), "");
            ++stats.folders;
            if (!writeTree(tar, root, p, stats, error))
                return false;
        } else if (fs::is_regular_file(st)) {
            const uint64_t size = entry.file_size();
            if (size > kMaxOctalSize) {
                error = "file too large for the package format (8 GiB or more): " + p.string();
                return false;
            }
            tar.header(name, '0', size, modeOf(st, false), unixTime(p, false), "");
            if (!copyFile(tar, p, size, error))
                return false;
            ++stats.files;
        }
        // Sockets, devices and pipes have no place in a package.
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
    if (!writeTree(tar, root, root, stats, error))
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
