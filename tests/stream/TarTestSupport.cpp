#include "TarTestSupport.h"

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <numeric>
#include <sstream>

#include <gtest/gtest.h>

#include "stream/PathUtil.h"
#include "stream/TARStreamWriterImp.h"
#include "support/TestSupport.h"

namespace tartest {

namespace {

std::wstring longForm(const std::wstring& path)
{
    std::wstring full(32768, L'\0');
    const DWORD n = path.rfind(L"\\\\?\\", 0) == 0 ? 0 : GetFullPathNameW(path.c_str(), 32768, full.data(), nullptr);
    return n == 0 || n >= 32768 ? path : L"\\\\?\\" + full.substr(0, n);
}

void putOctal(std::string& block, size_t offset, size_t width, uint64_t value) // width - 1 digits, as GNU tar writes
{
    for (size_t i = width - 1; i-- > 0; value >>= 3)
        block[offset + i] = static_cast<char>('0' + (value & 7));
}

std::mutex g_linksLock;
std::vector<std::pair<std::wstring, std::wstring>> g_links;

unsigned char __stdcall recordLink(const wchar_t* link, const wchar_t* target, unsigned long) { return std::lock_guard<std::mutex>(g_linksLock), g_links.emplace_back(link, target), 1; }

void walk(const std::wstring& folder, const std::string& relative, std::map<std::string, TreeEntry>& out)
{
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW(longForm(folder + L"\\*").c_str(), &data);
    if (find == INVALID_HANDLE_VALUE)
        return;
    do {
        const std::wstring name = data.cFileName;
        if (name == L"." || name == L"..")
            continue;
        const std::string child = relative + qvtest::narrow(name);
        TreeEntry& entry = out[child];
        entry.folder = (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
        entry.readOnly = (data.dwFileAttributes & FILE_ATTRIBUTE_READONLY) != 0;
        const uint64_t t = (uint64_t{data.ftLastWriteTime.dwHighDateTime} << 32) | data.ftLastWriteTime.dwLowDateTime;
        entry.mtime = entry.folder ? 0 : static_cast<int64_t>(t / 10000000) - 11644473600;
        if (entry.folder)
            walk(folder + L"\\" + name, child + "/", out);
        else
            qvtest::readFile(longForm(folder + L"\\" + name), entry.content);
    } while (FindNextFileW(find, &data));
    FindClose(find);
}

} // namespace

std::string headerBlock(const std::string& name, char type, uint64_t size, uint32_t mode, const std::string& link)
{
    std::string block(512, '\0');
    block.replace(0, std::min<size_t>(100, name.size()), name.substr(0, 100));
    putOctal(block, 100, 8, mode);
    putOctal(block, 124, 12, size);
    putOctal(block, 136, 12, 1600000000);
    block[156] = type;
    block.replace(157, std::min<size_t>(100, link.size()), link.substr(0, 100));
    block.replace(257, 8, std::string("ustar  \0", 8));
    block.replace(148, 8, "        ");
    char text[8];
    std::snprintf(text, sizeof text, "%06o", std::accumulate(block.begin(), block.end(), 0u, [](unsigned s, char c) { return s + static_cast<uint8_t>(c); }));
    return block.replace(148, 7, text, 7); // six digits and a NUL; the blank stays
}

TarBuilder& TarBuilder::longText(char type, const std::string& text)
{
    return entry("././@LongLink", type, text + std::string(1, '\0'), 0);
}

TarBuilder& TarBuilder::entry(const std::string& name, char type, const std::string& data, uint32_t mode, const std::string& link)
{
    return data_ += headerBlock(name, type, data.size(), mode, link) + data + std::string((512 - data.size() % 512) % 512, '\0'), *this;
}

TarBuilder& TarBuilder::file(const std::string& name, const std::string& data)
{
    return (name.size() > 100 ? longText('L', name) : *this).entry(name.substr(0, 100), '0', data);
}

TarBuilder& TarBuilder::link(const std::string& name, char type, const std::string& target)
{
    return (target.size() > 100 ? longText('K', target) : *this)
        .entry(name, type, {}, type == '2' ? 0777u : 0644u, target.substr(0, 100));
}

bool feed(StreamWriter& sink, const std::string& bytes, size_t chunk, size_t from, size_t to)
{
    to = std::min(to, bytes.size());
    for (size_t at = from; at < to; at += chunk) {
        const uint32_t n = static_cast<uint32_t>(std::min(chunk, to - at));
        if (sink.writeBytes(reinterpret_cast<const uint8_t*>(bytes.data() + at), n) != n)
            return false;
    }
    return true;
}

std::map<std::string, TreeEntry> readTree(const std::wstring& root) { std::map<std::string, TreeEntry> out; return walk(root, "", out), out; }

std::string contents(const std::wstring& path) { return [&](std::string b) { return qvtest::readFile(path, b), b; }({}); }

LinkRecorder::LinkRecorder() { std::lock_guard<std::mutex> hold(g_linksLock); g_links.clear(), qv::setSymbolicLinkOperation(&recordLink); }
LinkRecorder::~LinkRecorder() { qv::selectSymbolicLinkOperation(); }
std::vector<std::pair<std::wstring, std::wstring>> LinkRecorder::calls() const { return std::lock_guard<std::mutex>(g_linksLock), g_links; }

std::wstring workFolder(const std::wstring& name)
{
    std::wstring root = qvtest::env(L"QVDLM_TEST_WORK");
    std::replace(root.begin(), root.end(), L'/', L'\\');
    return (root.rfind(L"\\", 0) == 0 ? L"Z:" : L"") + root + L"\\" + name;
}

void expectTree(const std::wstring& dest, const std::string& format, const std::vector<std::pair<std::wstring, std::wstring>>* links)
{
    // Wine shows the packed tree's links as what they lead to; the sink makes links instead
    std::stringstream in(contents(workFolder(L"tar-archives\\" + qvtest::widen(format) + L".links")));
    auto expected = readTree(workFolder(L"tar-archives\\" + qvtest::widen(format) + L"-tree"));
    auto tree = readTree(dest);
    size_t symbolic = 0;
    for (std::string path, target; std::getline(in, path, '\t') && std::getline(in, target); ++symbolic) {
        const auto drop = [&](auto& t) {
            for (auto it = t.begin(); it != t.end();)
                it = it->first == path || it->first.rfind(path + "/", 0) == 0 ? t.erase(it) : std::next(it);
        };
        drop(expected);
        if (!links)
            drop(tree); // no link recorded: a copy of its target stands in for it
        std::wstring suffix = L"\\" + qvtest::widen(path), to = qvtest::widen(target);
        std::replace(suffix.begin(), suffix.end(), L'/', L'\\');
        std::replace(to.begin(), to.end(), L'/', L'\\');
        EXPECT_TRUE(!links || std::any_of(links->begin(), links->end(), [&](const auto& c) {
                return c.second == to && c.first.size() > suffix.size() && c.first.substr(c.first.size() - suffix.size()) == suffix;
            })) << "no link " << path;
    }
    EXPECT_EQ(links ? links->size() : symbolic, symbolic);
    EXPECT_GE(expected.size(), format == "gnu" ? 20u : 2u);
    EXPECT_EQ(expected.size(), tree.size());
    for (const auto& [path, entry] : expected) {
        const auto found = tree.find(path);
        ASSERT_NE(found, tree.end()) << path << " missing";
        EXPECT_TRUE(found->second.folder == entry.folder && found->second.content == entry.content) << path;
        EXPECT_EQ(entry.mtime, found->second.mtime) << path;
        EXPECT_EQ(entry.readOnly, found->second.readOnly) << path;
    }
}

} // namespace tartest
