#include "TarTestSupport.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "stream/PathUtil.h"
#include "stream/TARStreamWriterImp.h"
#include "support/TestSupport.h"

namespace tartest {

namespace {

void putOctal(std::string& block, size_t offset, size_t width, uint64_t value)
{
    // width - 1 octal digits and a terminator, as GNU tar writes them.
    std::string digits(width - 1, '0');
    for (size_t i = width - 1; i-- > 0 && value;) {
        digits[i] = static_cast<char>('0' + (value & 7));
        value >>= 3;
    }
    block.replace(offset, width - 1, digits);
    block[offset + width - 1] = '\0';
}

void putText(std::string& block, size_t offset, size_t width, const std::string& text)
{
    block.replace(offset, std::min(width, text.size()), text.substr(0, width));
}

std::string padded(const std::string& data)
{
    std::string out = data;
    out.resize((data.size() + 511) / 512 * 512, '\0');
    return out;
}

std::mutex g_linksLock;
std::vector<std::pair<std::wstring, std::wstring>> g_links;

unsigned char __stdcall recordLink(const wchar_t* linkPath, const wchar_t* targetPath, unsigned long)
{
    std::lock_guard<std::mutex> lock(g_linksLock);
    g_links.emplace_back(linkPath, targetPath);
    return 1;
}

void walk(const std::wstring& root, const std::string& relative, std::map<std::string, TreeEntry>& out)
{
    const std::wstring folder = relative.empty() ? root : root + L"\\" + qvtest::widen(relative);
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW(longForm(folder + L"\\*").c_str(), &data);
    if (find == INVALID_HANDLE_VALUE)
        return;
    do {
        const std::wstring name = data.cFileName;
        if (name == L"." || name == L"..")
            continue;
        const std::string child = (relative.empty() ? "" : relative + "/") + qvtest::narrow(name);
        TreeEntry entry;
        entry.folder = (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
        entry.readOnly = (data.dwFileAttributes & FILE_ATTRIBUTE_READONLY) != 0;
        const std::wstring path = folder + L"\\" + name;
        if (!entry.folder) {
            qvtest::readFile(longForm(path), entry.content);
            entry.mtime = fileTime(path);
        }
        out[child] = entry;
        if (entry.folder)
            walk(root, child, out);
    } while (FindNextFileW(find, &data));
    FindClose(find);
}

} // namespace

std::string headerBlock(const Header& h)
{
    std::string block(512, '\0');
    putText(block, 0, 100, h.name);
    putOctal(block, 100, 8, h.mode);
    putOctal(block, 108, 8, 0);
    putOctal(block, 116, 8, 0);
    putOctal(block, 124, 12, h.size);
    putOctal(block, 136, 12, static_cast<uint64_t>(h.mtime));
    block[156] = h.type;
    putText(block, 157, 100, h.link);
    if (h.posixMagic)
        block.replace(257, 8, std::string("ustar\0" "00", 8));
    else
        block.replace(257, 8, std::string("ustar  \0", 8));
    putText(block, 345, 155, h.prefix);
    if (h.checksum) {
        block.replace(148, 8, "        ");
        uint32_t sum = 0;
        for (unsigned char c : block)
            sum += c;
        char text[8];
        std::snprintf(text, sizeof text, "%06o", sum);
        block.replace(148, 6, text);
        block[154] = '\0';
        block[155] = ' ';
    }
    return block;
}

TarBuilder& TarBuilder::longText(char type, const std::string& text)
{
    Header h;
    h.name = "././@LongLink";
    h.type = type;
    h.size = text.size() + 1;
    h.mode = 0;
    h.mtime = 0;
    return entry(h, text + std::string(1, '\0'));
}

TarBuilder& TarBuilder::entry(const Header& header, const std::string& data)
{
    data_ += headerBlock(header);
    data_ += padded(data);
    return *this;
}

TarBuilder& TarBuilder::file(const std::string& name, const std::string& data, uint32_t mode, int64_t mtime)
{
    if (name.size() > 100)
        longText('L', name);
    Header h;
    h.name = name.substr(0, 100);
    h.size = data.size();
    h.mode = mode;
    h.mtime = mtime;
    return entry(h, data);
}

TarBuilder& TarBuilder::folder(const std::string& name)
{
    Header h;
    h.name = name;
    h.type = '5';
    h.mode = 0755;
    return entry(h);
}

TarBuilder& TarBuilder::hardLink(const std::string& name, const std::string& target)
{
    if (target.size() > 100)
        longText('K', target);
    Header h;
    h.name = name;
    h.type = '1';
    h.link = target.substr(0, 100);
    return entry(h);
}

TarBuilder& TarBuilder::symLink(const std::string& name, const std::string& target)
{
    if (target.size() > 100)
        longText('K', target);
    Header h;
    h.name = name;
    h.type = '2';
    h.mode = 0777;
    h.link = target.substr(0, 100);
    return entry(h);
}

TarBuilder& TarBuilder::raw(const std::string& bytes)
{
    data_ += bytes;
    return *this;
}

std::string TarBuilder::bytes(bool endMarker) const
{
    return endMarker ? data_ + std::string(1024, '\0') : data_;
}

bool feed(TARStreamWriterImp& sink, const std::string& bytes, size_t chunk, size_t from, size_t to)
{
    to = std::min(to, bytes.size());
    for (size_t at = from; at < to;) {
        const size_t n = std::min(chunk, to - at);
        const int64_t taken = sink.writeBytes(reinterpret_cast<const uint8_t*>(bytes.data() + at),
                                              static_cast<uint32_t>(n));
        if (taken != static_cast<int64_t>(n))
            return false;
        at += n;
    }
    return true;
}

std::map<std::string, TreeEntry> readTree(const std::wstring& root)
{
    std::map<std::string, TreeEntry> out;
    walk(root, "", out);
    return out;
}

int64_t fileTime(const std::wstring& path)
{
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!GetFileAttributesExW(longForm(path).c_str(), GetFileExInfoStandard, &data))
        return -1;
    ULARGE_INTEGER t;
    t.LowPart = data.ftLastWriteTime.dwLowDateTime;
    t.HighPart = data.ftLastWriteTime.dwHighDateTime;
    return static_cast<int64_t>(t.QuadPart / 10000000) - 11644473600;
}

LinkRecorder::LinkRecorder()
{
    std::lock_guard<std::mutex> lock(g_linksLock);
    g_links.clear();
    qv::setSymbolicLinkOperation(&recordLink);
}

LinkRecorder::~LinkRecorder() { qv::selectSymbolicLinkOperation(); }

std::vector<std::pair<std::wstring, std::wstring>> LinkRecorder::calls() const
{
    std::lock_guard<std::mutex> lock(g_linksLock);
    return g_links;
}

std::wstring longForm(const std::wstring& path)
{
    if (path.rfind(L"\\\\?\\", 0) == 0)
        return path;
    wchar_t full[32768];
    const DWORD n = GetFullPathNameW(path.c_str(), 32768, full, nullptr);
    if (n == 0 || n >= 32768)
        return path;
    return std::wstring(L"\\\\?\\") + full;
}

} // namespace tartest
