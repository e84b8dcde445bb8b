// The download request: URL splitting, block naming, tokens, queries and the current-URL build.
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <ctime>
#include <string>
#include <vector>

#include "request/DownloadRequestImp.h"
#include "support/Md5.h"
#include "support/TestSupport.h"

namespace {

using Texts = std::vector<std::wstring>;

// A token is "<expiry>_<digest>": valid for 30 days from now, its digest over the block's path and key.
void expectToken(const wchar_t* token, const std::string& resource, const std::string& key, int64_t before)
{
    const std::string text = qvtest::narrow(token ? token : L"-");
    const int64_t expiry = std::stoll(text.substr(0, text.find('_')));
    EXPECT_TRUE(expiry >= before + 2592000 && expiry <= static_cast<int64_t>(std::time(nullptr)) + 2592000) << text;
    EXPECT_EQ(text.substr(text.find('_') + 1), qvtest::urlTokenDigest(static_cast<uint32_t>(expiry), resource, "", key));
}

std::wstring url(DownloadRequestImp& r, bool local = false) { return r.getUrl(local) ? r.getUrl(local) : L"<null>"; }

} // namespace

TEST(DownloadRequest, SplitsUrlsIntoBlocksAndQueries)
{
    // noToken: authparam name cleared; first: getUrl(false) of block 0 when not urls[0]; kind: 'L' .tar.lzma2, 'S' .sfx.exe.
    struct Case { const wchar_t *url, *file, *suffix; bool noToken; Texts urls, queries; const wchar_t* first = nullptr; char kind = ' '; };
    const Case cases[] = {
        {L"http://h.example/dir/file.bin", L"a.exe", nullptr, false, {L"http://h.example/dir/a.exe"}, {}},
        {L"http://h.example/dir/file.bin?x=1", L"b.exe", nullptr, false, {L"http://h.example/dir/b.exe"}, {L"x=1"}, L"http://h.example/dir/b.exe?x=1"},
        {L"http://h.example/p/f.bin?a=1&b=2", nullptr, nullptr, false, {L"http://h.example/p/f.bin"}, {L"a=1&b=2"}, L"http://h.example/p/f.bin?a=1&b=2"},
        {L"http://h.example/p/pkg_001_002.tar.lzma2?SESSION_ID=s&k=v", nullptr, L"z", true, {L"http://h.example/p/pkg_001_002.tar.lzma2", L"http://h.example/p/pkg_002_002.tar.lzma2"},
         {L"SESSION_ID=s_001_002&k=v_z", L"SESSION_ID=s_002_002&k=v_z"}, L"http://h.example/p/pkg_001_002.tar.lzma2?SESSION_ID=s_001_002&k=v_z", 'L'},
        {L"http://a.example/1.bin?SESSION_ID=s;http://b.example/2.bin", nullptr, nullptr, true, {L"http://a.example/1.bin", L"http://b.example/2.bin"}, {L"SESSION_ID=s_001", L"SESSION_ID=s_002"}, L"http://a.example/1.bin?SESSION_ID=s_001"},
        {L"junk http://a.example/1;http://b.example/2|https://c.example/3", nullptr, nullptr, false, {L"http://a.example/1", L"http://b.example/2", L"https://c.example/3"}, {}},
        {L"http://h.example?x=1", nullptr, nullptr, true, {L"http://h.example"}, {L"x=1"}, L"http://h.example?x=1"},
        {L"http://h.example/p]x/f]].bin", nullptr, nullptr, false, {L"http://h.example/p]x/f]].bin"}, {}},
        {L"http://h.example/P_001_002.SFX.EXE", nullptr, nullptr, false, {L"http://h.example/P_001_002.SFX.EXE", L"http://h.example/P_002_002.SFX.EXE"}, {}, nullptr, 'S'},
        {L"http://h.example/d/x.bin", L"g_001_003.tar.lzma2", nullptr, false, {L"http://h.example/d/g_001_003.tar.lzma2", L"http://h.example/d/g_002_003.tar.lzma2", L"http://h.example/d/g_003_003.tar.lzma2"}, {}, nullptr, 'L'},
        // Without "_001_" the rule reads positions 4..6 as the count and numbers the first three characters.
        {L"http://h.example/abx002.sfx.exe?k=v", nullptr, nullptr, true, {L"http://h.example001x002.sfx.exe", L"http://h.example002x002.sfx.exe"}, {L"k=v"}, L"http://h.example001x002.sfx.exe?k=v"},
        // No block names: these stay whole. Short paths: 9 characters count as ".tar.lzma2", 7 as ".sfx.exe".
        {L"http://h.example/pkg_001_03.sfx.exe", nullptr, nullptr, false, {L"http://h.example/pkg_001_03.sfx.exe"}, {}, nullptr, 'S'},
        {L"http://h.example/pkg_002_003.sfx.exe", nullptr, nullptr, false, {L"http://h.example/pkg_002_003.sfx.exe"}, {}, nullptr, 'S'},
        {L"http://h.example/abcdefgh", nullptr, nullptr, false, {L"http://h.example/abcdefgh"}, {}, nullptr, 'L'},
        {L"http://h.example/abcdef", nullptr, nullptr, false, {L"http://h.example/abcdef"}, {}, nullptr, 'S'},
        {L"http://h.example/x.tar.lzma2.bak", nullptr, nullptr, false, {L"http://h.example/x.tar.lzma2.bak"}, {}},
        {L"http://h.example/a.sfx.exe#frag", nullptr, nullptr, false, {L"http://h.example/a.sfx.exe#frag"}, {}, nullptr, 'S'},
        // Nothing to fetch: no scheme, or zero blocks.
        {L"www.example.com/a.bin", L"f.exe", L"s", false, {}, {}},
        {L"http:/x", nullptr, nullptr, false, {}, {}}, {L"ftp://example.com/a.bin", nullptr, nullptr, false, {}, {}},
        {L"http://h.example/pkg_001_000.sfx.exe?authparam=0a0b&SESSION_ID=s", nullptr, nullptr, false, {}, {L"SESSION_ID=s"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(qvtest::narrow(c.url));
        DownloadRequestImp r;
        if (c.noToken)
            r.setAuthParamName(L"");
        r.setUrl(c.url, c.file, c.suffix);
        EXPECT_TRUE(r.getUrls() == c.urls && r.getQueries() == c.queries && r.getBlockCount() == static_cast<int32_t>(c.urls.size()));
        std::wstring id = c.urls.empty() ? L"" : c.urls[0];
        std::replace(id.begin(), id.end(), L']', L' ');
        EXPECT_EQ(std::wstring(r.getId()) + L"|" + url(r), id + L"|" + (c.first ? c.first : c.urls.empty() ? L"<null>" : c.urls[0]));
        EXPECT_EQ(std::string() + (r.isLzma2Package() ? 'L' : r.isSfxPackage() ? 'S' : ' '), std::string(1, c.kind));
        for (size_t block = 1; block < c.urls.size(); ++block)
            EXPECT_EQ(std::wstring(r.nextBlock()).substr(0, c.urls[block].size()), c.urls[block]);
        EXPECT_TRUE(r.nextBlock() == nullptr && r.isFinished() && r.getBlockId() == std::max(0, static_cast<int32_t>(c.urls.size()) - 1));
    }
}

TEST(DownloadRequest, ThreeBlocksWithTokensSessionQueriesAndLocalDelivery)
{
    DownloadRequestImp r;
    const int64_t before = static_cast<int64_t>(std::time(nullptr));
    r.setUrl(L"https://cdn.example.com/p/pkg_001_003.sfx.exe?authparam=0a0b&SESSION_ID=x&y=1", nullptr, L"abc");
    ASSERT_EQ(r.getBlockCount(), 3);
    EXPECT_STREQ(r.getId(), L"https://cdn.example.com/p/pkg_001_003.sfx.exe?authparam=%s");
    for (int i = 0; i < 3; ++i) {
        const std::wstring n = L"00" + std::to_wstring(i + 1), file = L"/p/pkg_" + n + L"_003.sfx.exe";
        SCOPED_TRACE(i);
        ASSERT_EQ(r.getUrls()[i], L"https://cdn.example.com" + file + L"?authparam=%s");
        EXPECT_EQ(r.getQueries()[i], L"SESSION_ID=x_" + n + L"_003&y=1_abc");
        expectToken(r.getToken(i), qvtest::narrow(file), "\x0a\x0b", before);
        r.setBlockId(i);
        const std::wstring withToken = L"https://cdn.example.com" + file + L"?authparam=" + r.getToken(i);
        EXPECT_EQ(url(r), withToken + L"&" + r.getQueries()[i]);
        EXPECT_STREQ(r.getQuery(), r.getQueries()[i].c_str());
        EXPECT_EQ(std::wstring(r.getUrlPath()), file);
        // Through the local delivery client: its serving URL, the token but no query.
        r.setUseAkamai(true);
        EXPECT_EQ(url(r, true), L"http://127.0.0.1:9421/api?function=serveFile&cid=0&url=" + withToken);
        EXPECT_EQ(url(r), withToken);
        r.setUseAkamai(false);
    }
    EXPECT_STRNE(r.getToken(0), r.getToken(1));
    r.setBlockId(3); // past the tokens
    EXPECT_TRUE(url(r) + url(r, true) + r.getUrlPath() == L"<null><null>" && r.getQuery() == nullptr);
}

TEST(DownloadRequest, TokenKeysParameterNamesAndOverLongParts)
{
    const std::tuple<std::wstring, std::string, const wchar_t*> cases[] = {
        {L"authparam=0A0b0&z=9", "\x0a\x0b", L"&z=9"}, // either case; the odd last digit is ignored
        {L"authparam=0a0b", "\x0a\x0b", L""},
        {L"authparam=" + std::wstring(600, L'a'), std::string(255, '\xaa'), L""}, // 300 bytes, cut at 255
    };
    for (const auto& [query, key, rest] : cases) {
        DownloadRequestImp r;
        const int64_t before = static_cast<int64_t>(std::time(nullptr));
        r.setUrl((L"http://h.example/k/f.bin?" + query).c_str(), nullptr, nullptr);
        expectToken(r.getToken(0), "/k/f.bin", key, before);
        EXPECT_EQ(url(r), L"http://h.example/k/f.bin?authparam=" + std::wstring(r.getToken(0)) + rest);
    }
    DownloadRequestImp r;
    for (const auto& [given, kept] : {std::pair{L"key", L"key="}, {L"a=b", L"a=b"}, {L"", L""}}) {
        r.setAuthParamName(given), r.setSessionParamName(given);
        EXPECT_EQ(std::wstring(r.getAuthParamName()) + L"|" + r.getSessionParamName(), std::wstring(kept) + L"|" + kept);
    }
    // Over-long parts are cut to the URL buffer.
    DownloadRequestImp big;
    const std::wstring path(5000, L'a');
    big.setUrl((L"http://h.example/" + path + L"?authparam=0a0b&SESSION_ID=s&y=" + std::wstring(3000, L'q')).c_str(), nullptr, nullptr);
    EXPECT_EQ(url(big), (L"http://h.example/" + path).substr(0, 2083));
    big.setUseAkamai(true);
    EXPECT_EQ(url(big, true).size(), 2083u);
    DownloadRequestImp q;
    q.setUrls(L"http://h.example/f?authparam=%s"), q.addToken(L"t"), q.addQuery(std::wstring(2100, L'q').c_str());
    EXPECT_EQ(url(q), L"http://h.example/f?authparam=t&" + std::wstring(2083 - 31, L'q'));

    // The path match runs on worker threads; a URL filling the whole buffer must not exhaust their stack.
    big.setUseAkamai(false);
    HANDLE thread = CreateThread(nullptr, 256 * 1024, [](void* p) -> DWORD {
        return static_cast<DWORD>(std::wcslen(static_cast<DownloadRequestImp*>(p)->getUrlPath())); }, &big, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
    DWORD length = 0;
    ASSERT_TRUE(thread && WaitForSingleObject(thread, 30000) == WAIT_OBJECT_0 && GetExitCodeThread(thread, &length) && CloseHandle(thread));
    EXPECT_EQ(length, 2083u - 16);
}
