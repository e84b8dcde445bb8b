// The download request: URL splitting, block naming, tokens, queries and the current-URL build.
#include <gtest/gtest.h>

#include <windows.h>

#include <ctime>
#include <string>

#include "QvDLMCodes.h"
#include "QvDLMFactory.h"
#include "request/DownloadRequestImp.h"
#include "support/Md5.h"
#include "support/TestSupport.h"

namespace {

constexpr wchar_t kWorkedExample[] = L"https://cdn.example.com/p/pkg_001_003.sfx.exe?authparam=0a0b&SESSION_ID=x&y=1";
constexpr int64_t kThirtyDays = 2592000;

struct ParsedToken {
    int64_t expiry = -1;
    std::string digest;
};

ParsedToken parseToken(const wchar_t* token)
{
    ParsedToken parsed;
    if (!token)
        return parsed;
    const std::string text = qvtest::narrow(token);
    const size_t underscore = text.find('_');
    if (underscore == std::string::npos)
        return parsed;
    parsed.expiry = std::stoll(text.substr(0, underscore));
    parsed.digest = text.substr(underscore + 1);
    return parsed;
}

// Checks a block token against the tests' own MD5 and the 30-day lifetime.
void expectToken(const wchar_t* token, const std::string& resource, const std::string& key, int64_t before,
                 int64_t after)
{
    ASSERT_NE(token, nullptr);
    const ParsedToken parsed = parseToken(token);
    EXPECT_GE(parsed.expiry, before + kThirtyDays);
    EXPECT_LE(parsed.expiry, after + kThirtyDays);
    EXPECT_EQ(parsed.digest, qvtest::urlTokenDigest(static_cast<uint32_t>(parsed.expiry), resource, "", key))
        << "resource " << resource;
}

std::wstring withToken(const std::wstring& url, const wchar_t* token)
{
    const size_t at = url.rfind(L"%s");
    return url.substr(0, at) + token + url.substr(at + 2);
}

} // namespace

TEST(DownloadRequestDefaults, MatchTheDocumentedFields)
{
    DownloadRequestImp r;
    EXPECT_STREQ(r.getId(), L"");
    EXPECT_STREQ(r.getVersion(), L"1.2");
    EXPECT_STREQ(r.getName(), L"");
    EXPECT_EQ(r.getBlockId(), 0);
    EXPECT_EQ(r.getBlockCount(), 1);
    EXPECT_STREQ(r.getAuthParamName(), L"authparam=");
    EXPECT_STREQ(r.getSessionParamName(), L"SESSION_ID=");
    EXPECT_EQ(r.getState(), qvdlm::state::Pending);
    EXPECT_EQ(r.getStatus(), 0u);
    EXPECT_EQ(r.getSaveInterval(), 734003200u);
    EXPECT_FALSE(r.getUseAkamai());
    EXPECT_FALSE(r.getAutoOpen());
    EXPECT_TRUE(r.getHttpFallback());
    EXPECT_EQ(r.getRetryCount(), 5);
    EXPECT_EQ(r.getFallbackRetryCount(), 3);
    EXPECT_EQ(r.getAuxRetryCount(), 3);
    EXPECT_FALSE(r.isFinished());
    EXPECT_EQ(r.getToken(0), nullptr);
    EXPECT_EQ(r.getQuery(), nullptr);
    EXPECT_EQ(r.getUrl(false), nullptr);
    EXPECT_STREQ(r.getUrlPath(), L"");
}

TEST(DownloadRequestSetters, CopyTheirArgumentsAndAcceptNull)
{
    DownloadRequestImp r;
    std::wstring name = L"Package";
    r.setName(name.c_str());
    name[0] = L'X';
    EXPECT_STREQ(r.getName(), L"Package");
    r.setName(nullptr);
    EXPECT_STREQ(r.getName(), L"");
    r.setDestDir(L"C:\\dest");
    r.setExePath(L"setup.exe");
    r.setExeParam(L"/q");
    r.setCheckpointDir(L"C:\\chk");
    r.setDate(L"2024-01-02");
    r.setContentLength(-1);
    r.setCompressedSize(1ull << 40);
    r.setUncompressedSize((1ull << 41) + 1);
    r.setCheckpointId(7);
    r.setBlockDownloadedSize(11);
    r.setTotalDownloadedSize(22);
    r.setExtractedSize(33);
    r.setRetryCount(9);
    r.setFallbackRetryCount(8);
    r.setAuxRetryCount(6);
    r.setHttpFallback(false);
    r.setAutoOpen(true);
    r.setState(qvdlm::state::Paused);
    r.setStatus(qvdlm::status::NetworkError);
    EXPECT_STREQ(r.getDestDir(), L"C:\\dest");
    EXPECT_STREQ(r.getExePath(), L"setup.exe");
    EXPECT_STREQ(r.getExeParam(), L"/q");
    EXPECT_STREQ(r.getCheckpointDir(), L"C:\\chk");
    EXPECT_STREQ(r.getDate(), L"2024-01-02");
    EXPECT_EQ(r.getContentLength(), -1);
    EXPECT_EQ(r.getCompressedSize(), 1ull << 40);
    EXPECT_EQ(r.getUncompressedSize(), (1ull << 41) + 1);
    EXPECT_EQ(r.getCheckpointId(), 7u);
    EXPECT_EQ(r.getBlockDownloadedSize(), 11u);
    EXPECT_EQ(r.getTotalDownloadedSize(), 22u);
    EXPECT_EQ(r.getExtractedSize(), 33u);
    EXPECT_EQ(r.getRetryCount(), 9);
    EXPECT_EQ(r.getFallbackRetryCount(), 8);
    EXPECT_EQ(r.getAuxRetryCount(), 6);
    EXPECT_FALSE(r.getHttpFallback());
    EXPECT_TRUE(r.getAutoOpen());
    EXPECT_EQ(r.getState(), qvdlm::state::Paused);
    EXPECT_EQ(r.getStatus(), qvdlm::status::NetworkError);
}

TEST(DownloadRequestSetters, ParameterNamesGainAnEqualsSign)
{
    DownloadRequestImp r;
    r.setAuthParamName(L"key");
    EXPECT_STREQ(r.getAuthParamName(), L"key=");
    r.setAuthParamName(L"a=b");
    EXPECT_STREQ(r.getAuthParamName(), L"a=b");
    r.setAuthParamName(L"");
    EXPECT_STREQ(r.getAuthParamName(), L"");
    r.setSessionParamName(L"sid");
    EXPECT_STREQ(r.getSessionParamName(), L"sid=");
    r.setSessionParamName(nullptr);
    EXPECT_STREQ(r.getSessionParamName(), L"");
}

TEST(DownloadRequestWorkedExample, ThreeSfxBlocksWithTokensAndSessionQueries)
{
    DownloadRequestImp r;
    const int64_t before = static_cast<int64_t>(std::time(nullptr));
    r.setUrl(kWorkedExample, nullptr, nullptr);
    const int64_t after = static_cast<int64_t>(std::time(nullptr));

    EXPECT_STREQ(r.getOriginalUrl(), kWorkedExample);
    ASSERT_EQ(r.getBlockCount(), 3);
    ASSERT_EQ(r.getUrls().size(), 3u);
    ASSERT_EQ(r.getQueries().size(), 3u);
    for (int i = 0; i < 3; ++i) {
        const std::wstring n = L"00" + std::to_wstring(i + 1);
        SCOPED_TRACE(i);
        EXPECT_EQ(r.getUrls()[i], L"https://cdn.example.com/p/pkg_" + n + L"_003.sfx.exe?authparam=%s");
        EXPECT_EQ(r.getQueries()[i], L"SESSION_ID=x_" + n + L"_003&y=1");
        expectToken(r.getToken(i), "/p/pkg_" + qvtest::narrow(n) + "_003.sfx.exe", "\x0a\x0b", before, after);
    }
    EXPECT_EQ(r.getToken(3), nullptr);
    EXPECT_STREQ(r.getId(), L"https://cdn.example.com/p/pkg_001_003.sfx.exe?authparam=%s");

    // Each block's URL carries its own token and query.
    for (int i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        r.setBlockId(i);
        const std::wstring expected = withToken(r.getUrls()[i], r.getToken(i)) + L"&" + r.getQueries()[i];
        ASSERT_NE(r.getUrl(false), nullptr);
        EXPECT_EQ(std::wstring(r.getUrl(false)), expected);
        EXPECT_STREQ(r.getQuery(), r.getQueries()[i].c_str());
    }
    r.setBlockId(0);
    EXPECT_TRUE(r.isSfxPackage());
    EXPECT_FALSE(r.isLzma2Package());
    EXPECT_STREQ(r.getUrlPath(), L"/p/pkg_001_003.sfx.exe");
    // The tokens differ per block: each covers its own block's path.
    EXPECT_STRNE(r.getToken(0), r.getToken(1));
}

TEST(DownloadRequestWorkedExample, NextBlockWalksTheBlocksAndStopsAtTheLast)
{
    DownloadRequestImp r;
    r.setUrl(kWorkedExample, nullptr, nullptr);
    const wchar_t* second = r.nextBlock();
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(r.getBlockId(), 1);
    EXPECT_EQ(std::wstring(second).find(L"pkg_002_003.sfx.exe?authparam="), 26u);
    ASSERT_NE(r.nextBlock(), nullptr);
    EXPECT_EQ(r.getBlockId(), 2);
    EXPECT_FALSE(r.isFinished());
    EXPECT_EQ(r.nextBlock(), nullptr);
    EXPECT_TRUE(r.isFinished());
    EXPECT_EQ(r.getBlockId(), 2);
    EXPECT_NE(std::wstring(r.getUrl(false)).find(L"SESSION_ID=x_003_003&y=1"), std::wstring::npos);
}

TEST(DownloadRequestWorkedExample, SuffixIsAppendedToEveryQuery)
{
    DownloadRequestImp r;
    r.setUrl(kWorkedExample, nullptr, L"abc");
    ASSERT_EQ(r.getQueries().size(), 3u);
    EXPECT_EQ(r.getQueries()[0], L"SESSION_ID=x_001_003&y=1_abc");
    EXPECT_EQ(r.getQueries()[2], L"SESSION_ID=x_003_003&y=1_abc");
}

TEST(DownloadRequestWorkedExample, LocalDeliveryFormCarriesTheTokenButNoQuery)
{
    DownloadRequestImp r;
    r.setUrl(kWorkedExample, nullptr, nullptr);
    r.setUseAkamai(true);
    r.setBlockId(1);
    const std::wstring expected = L"http://127.0.0.1:9421/api?function=serveFile&cid=0&url=" +
                                  withToken(r.getUrls()[1], r.getToken(1));
    ASSERT_NE(r.getUrl(true), nullptr);
    EXPECT_EQ(std::wstring(r.getUrl(true)), expected);
    // The plain form leaves the query out as well while delivery goes through the local client.
    EXPECT_EQ(std::wstring(r.getUrl(false)), withToken(r.getUrls()[1], r.getToken(1)));
    r.setUseAkamai(false);
    EXPECT_NE(std::wstring(r.getUrl(true)).find(L"&SESSION_ID=x_002_003&y=1"), std::wstring::npos);
}

TEST(DownloadRequestUrl, FileNameReplacesTheLastSegment)
{
    DownloadRequestImp r;
    r.setUrl(L"http://host.example/dir/file.bin", L"a.exe", nullptr);
    ASSERT_EQ(r.getUrls().size(), 1u);
    EXPECT_EQ(r.getUrls()[0], L"http://host.example/dir/a.exe");
    EXPECT_EQ(r.getBlockCount(), 1);
    EXPECT_EQ(r.getToken(0), nullptr);
    EXPECT_TRUE(r.getQueries().empty());
    EXPECT_STREQ(r.getUrl(false), L"http://host.example/dir/a.exe");
    EXPECT_STREQ(r.getUrlPath(), L"/dir/a.exe");

    DownloadRequestImp q;
    q.setUrl(L"http://host.example/dir/file.bin?x=1", L"b.exe", nullptr);
    EXPECT_STREQ(q.getUrl(false), L"http://host.example/dir/b.exe?x=1");
}

TEST(DownloadRequestUrl, QueryWithoutKeysIsKeptWhole)
{
    DownloadRequestImp r;
    r.setUrl(L"http://h.example/p/f.bin?a=1&b=2", nullptr, nullptr);
    ASSERT_EQ(r.getQueries().size(), 1u);
    EXPECT_EQ(r.getQueries()[0], L"a=1&b=2");
    EXPECT_EQ(r.getUrls()[0], L"http://h.example/p/f.bin");
    EXPECT_STREQ(r.getUrl(false), L"http://h.example/p/f.bin?a=1&b=2");
    EXPECT_TRUE(r.getUrl(true) == r.getUrl(false));
}

TEST(DownloadRequestUrl, TokenWithoutSessionKeyDropsTheLeadingAuthParameter)
{
    DownloadRequestImp r;
    const int64_t before = static_cast<int64_t>(std::time(nullptr));
    r.setUrl(L"http://h.example/p/f.bin?authparam=0A0b0&z=9", nullptr, nullptr);
    const int64_t after = static_cast<int64_t>(std::time(nullptr));
    ASSERT_EQ(r.getQueries().size(), 1u);
    EXPECT_EQ(r.getQueries()[0], L"z=9");
    // Upper- and lower-case digits both count; the odd last digit is ignored.
    expectToken(r.getToken(0), "/p/f.bin", "\x0a\x0b", before, after);
    EXPECT_EQ(std::wstring(r.getUrl(false)), L"http://h.example/p/f.bin?authparam=" + std::wstring(r.getToken(0)) + L"&z=9");

    DownloadRequestImp only;
    only.setUrl(L"http://h.example/p/f.bin?authparam=0a0b", nullptr, nullptr);
    EXPECT_TRUE(only.getQueries().empty());
    EXPECT_EQ(std::wstring(only.getUrl(false)), L"http://h.example/p/f.bin?authparam=" + std::wstring(only.getToken(0)));
}

TEST(DownloadRequestUrl, KeyIsCutAtTwoHundredFiftyFiveBytes)
{
    std::wstring hex;
    std::string key;
    for (int i = 0; i < 300; ++i) {
        const int byte = 1 + i % 250;
        wchar_t pair[3];
        swprintf(pair, 3, L"%02x", byte);
        hex += pair;
        if (i < 255)
            key.push_back(static_cast<char>(byte));
    }
    DownloadRequestImp r;
    const int64_t before = static_cast<int64_t>(std::time(nullptr));
    r.setUrl((L"http://h.example/k/f.bin?authparam=" + hex).c_str(), nullptr, nullptr);
    const int64_t after = static_cast<int64_t>(std::time(nullptr));
    expectToken(r.getToken(0), "/k/f.bin", key, before, after);
}

TEST(DownloadRequestUrl, SessionKeyWithoutTokenKeepsTheWholeQueryAndNumbersIt)
{
    DownloadRequestImp r;
    r.setAuthParamName(L"");
    r.setUrl(L"http://h.example/p/pkg_001_002.tar.lzma2?SESSION_ID=s&k=v", nullptr, L"z");
    EXPECT_EQ(r.getBlockCount(), 2);
    EXPECT_EQ(r.getToken(0), nullptr);
    ASSERT_EQ(r.getUrls().size(), 2u);
    EXPECT_EQ(r.getUrls()[0], L"http://h.example/p/pkg_001_002.tar.lzma2");
    EXPECT_EQ(r.getUrls()[1], L"http://h.example/p/pkg_002_002.tar.lzma2");
    ASSERT_EQ(r.getQueries().size(), 2u);
    EXPECT_EQ(r.getQueries()[0], L"SESSION_ID=s_001_002&k=v_z");
    EXPECT_EQ(r.getQueries()[1], L"SESSION_ID=s_002_002&k=v_z");
    EXPECT_TRUE(r.isLzma2Package());
    r.setBlockId(1);
    EXPECT_STREQ(r.getUrl(false), L"http://h.example/p/pkg_002_002.tar.lzma2?SESSION_ID=s_002_002&k=v_z");
}

TEST(DownloadRequestUrl, SessionKeyOnAListWithoutBlockNamesGetsABareNumber)
{
    DownloadRequestImp r;
    r.setAuthParamName(L"");
    r.setUrl(L"http://a.example/x/1.bin?SESSION_ID=s;http://b.example/y/2.bin", nullptr, nullptr);
    ASSERT_EQ(r.getBlockCount(), 2);
    ASSERT_EQ(r.getQueries().size(), 2u);
    EXPECT_EQ(r.getQueries()[0], L"SESSION_ID=s_001");
    EXPECT_EQ(r.getQueries()[1], L"SESSION_ID=s_002");
}

TEST(DownloadRequestSplit, ListsSplitAtEachSchemeAndDropTheSeparator)
{
    DownloadRequestImp r;
    r.setUrl(L"junk before http://a.example/x/1.bin;http://b.example/y/2.bin|https://c.example/z/3.bin", nullptr,
             nullptr);
    ASSERT_EQ(r.getBlockCount(), 3);
    EXPECT_EQ(r.getUrls()[0], L"http://a.example/x/1.bin");
    EXPECT_EQ(r.getUrls()[1], L"http://b.example/y/2.bin");
    EXPECT_EQ(r.getUrls()[2], L"https://c.example/z/3.bin");
    EXPECT_STREQ(r.getId(), L"http://a.example/x/1.bin");
    EXPECT_STREQ(r.nextBlock(), L"http://b.example/y/2.bin");

    DownloadRequestImp secure;
    secure.setUrl(L"https://a.example/1;https://b.example/2", nullptr, nullptr);
    ASSERT_EQ(secure.getUrls().size(), 2u);
    EXPECT_EQ(secure.getUrls()[1], L"https://b.example/2");
}

TEST(DownloadRequestSplit, UrlWithoutSchemeGivesNoBlocks)
{
    for (const wchar_t* url : {L"www.example.com/a.bin", L"ftp://example.com/a.bin", L"", L"http:/x"}) {
        SCOPED_TRACE(qvtest::narrow(url));
        DownloadRequestImp r;
        r.setUrl(url, L"f.exe", L"s");
        EXPECT_EQ(r.getBlockCount(), 0);
        EXPECT_TRUE(r.getUrls().empty());
        EXPECT_STREQ(r.getId(), L"");
        EXPECT_EQ(r.getUrl(false), nullptr);
        EXPECT_EQ(r.getUrl(true), nullptr);
        EXPECT_STREQ(r.getUrlPath(), L"");
        EXPECT_EQ(r.nextBlock(), nullptr);
        EXPECT_TRUE(r.isFinished());
    }
    DownloadRequestImp none;
    none.setUrl(nullptr, nullptr, nullptr);
    EXPECT_EQ(none.getBlockCount(), 0);
}

TEST(DownloadRequestSplit, UrlWithQueryButNoPathKeepsItsHost)
{
    DownloadRequestImp r;
    r.setAuthParamName(L"");
    r.setUrl(L"http://h.example?x=1", nullptr, nullptr);
    ASSERT_EQ(r.getUrls().size(), 1u);
    EXPECT_EQ(r.getUrls()[0], L"http://h.example");
    EXPECT_STREQ(r.getUrl(false), L"http://h.example?x=1");
    EXPECT_STREQ(r.getUrlPath(), L"");
}

TEST(DownloadRequestId, ClosingBracketsBecomeBlanks)
{
    DownloadRequestImp r;
    r.setUrl(L"http://h.example/p]x/f]].bin", nullptr, nullptr);
    EXPECT_STREQ(r.getId(), L"http://h.example/p x/f  .bin");
    EXPECT_EQ(r.getUrls()[0], L"http://h.example/p]x/f]].bin");
}

TEST(DownloadRequestBlockNaming, UpperCaseSuffixIsRecognised)
{
    DownloadRequestImp r;
    r.setUrl(L"http://h.example/P/PKG_001_002.SFX.EXE", nullptr, nullptr);
    ASSERT_EQ(r.getBlockCount(), 2);
    EXPECT_EQ(r.getUrls()[1], L"http://h.example/P/PKG_002_002.SFX.EXE");
    EXPECT_TRUE(r.isSfxPackage());
}

TEST(DownloadRequestBlockNaming, FewerDigitsOrAnotherSuffixLeaveTheNameAlone)
{
    for (const wchar_t* url : {L"http://h.example/p/pkg_001_03.sfx.exe", L"http://h.example/p/pkg_001_003.zip",
                               L"http://h.example/p/pkg_001_0a3.tar.lzma2", L"http://h.example/p/pkg_001_003x.sfx.exe",
                               L"http://h.example/p/pkg_002_003.sfx.exe"}) {
        SCOPED_TRACE(qvtest::narrow(url));
        DownloadRequestImp r;
        r.setUrl(url, nullptr, nullptr);
        EXPECT_EQ(r.getBlockCount(), 1);
        ASSERT_EQ(r.getUrls().size(), 1u);
        EXPECT_EQ(r.getUrls()[0], url);
    }
}

TEST(DownloadRequestBlockNaming, ZeroBlocksLeaveNoUrlToFetch)
{
    DownloadRequestImp r;
    r.setUrl(L"http://h.example/p/pkg_001_000.sfx.exe?authparam=0a0b&SESSION_ID=s", nullptr, nullptr);
    EXPECT_EQ(r.getBlockCount(), 0);
    EXPECT_TRUE(r.getUrls().empty());
    EXPECT_EQ(r.getToken(0), nullptr);
    EXPECT_STREQ(r.getId(), L"");
    EXPECT_EQ(r.getUrl(false), nullptr);
    EXPECT_EQ(r.nextBlock(), nullptr);
}

TEST(DownloadRequestBlockNaming, MissingFirstBlockMarkerReadsTheCountFromTheTextStart)
{
    // Without "_001_" the rule reads positions 4..6 as the count and replaces the first three characters.
    DownloadRequestImp r;
    r.setAuthParamName(L"");
    r.setUrl(L"http://h.example/abx002.sfx.exe?k=v", nullptr, nullptr);
    ASSERT_EQ(r.getBlockCount(), 2);
    ASSERT_EQ(r.getUrls().size(), 2u);
    EXPECT_EQ(r.getUrls()[0], L"http://h.example001x002.sfx.exe");
    EXPECT_EQ(r.getUrls()[1], L"http://h.example002x002.sfx.exe");
}

TEST(DownloadRequestBlockNaming, FileNameIsNamedAndExpandedToo)
{
    DownloadRequestImp r;
    r.setUrl(L"http://h.example/dir/anything.bin", L"game_001_004.tar.lzma2", nullptr);
    ASSERT_EQ(r.getBlockCount(), 4);
    EXPECT_EQ(r.getUrls()[3], L"http://h.example/dir/game_004_004.tar.lzma2");
    EXPECT_TRUE(r.isLzma2Package());
}

TEST(DownloadRequestPackageKind, ShortPathsFollowTheStatedTest)
{
    struct Case {
        const wchar_t* url;
        bool lzma2;
        bool sfx;
    };
    const Case cases[] = {
        {L"http://h.example/abcdefgh", true, false},      // path of 9 characters
        {L"http://h.example/abcdef", false, true},        // path of 7 characters
        {L"http://h.example/abcdefg", false, false},      // 8 characters
        {L"http://h.example/abcde", false, false},        // 6 characters
        {L"http://h.example/x.TAR.LZMA2", true, false},   // lower-cased first
        {L"http://h.example/x.tar.lzma2.bak", false, false},
        {L"http://h.example/a.sfx.exe#frag", false, true}, // fragment is not part of the path
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(qvtest::narrow(c.url));
        DownloadRequestImp r;
        r.setUrl(c.url, nullptr, nullptr);
        EXPECT_EQ(r.isLzma2Package(), c.lzma2);
        EXPECT_EQ(r.isSfxPackage(), c.sfx);
    }
}

TEST(DownloadRequestCurrentUrl, SetBlockIdRebuildsAndPastTheTokensGivesNull)
{
    DownloadRequestImp r;
    r.setUrl(kWorkedExample, nullptr, nullptr);
    r.setBlockId(2);
    EXPECT_NE(std::wstring(r.getUrl(false)).find(L"pkg_003_003"), std::wstring::npos);
    r.setBlockId(3);
    EXPECT_EQ(r.getUrl(false), nullptr);
    EXPECT_EQ(r.getUrl(true), nullptr);
    EXPECT_STREQ(r.getUrlPath(), L"");
    r.setBlockId(-1);
    EXPECT_EQ(r.getUrl(false), nullptr);
    r.setUseAkamai(true);
    EXPECT_EQ(r.getUrl(true), nullptr);
}

TEST(DownloadRequestCurrentUrl, GetQueryPicksTheBlocksOwnOrTheOnlyOne)
{
    DownloadRequestImp r;
    r.addQuery(L"only=1");
    r.setBlockId(5);
    EXPECT_STREQ(r.getQuery(), L"only=1");
    r.clearQueries();
    r.addQuery(L"a");
    r.addQuery(L"b");
    r.setBlockId(1);
    EXPECT_STREQ(r.getQuery(), L"b");
    r.setBlockId(2);
    EXPECT_EQ(r.getQuery(), nullptr);
}

TEST(DownloadRequestCurrentUrl, SetUrlsResplitsAStoredListAndKeepsTokensAndQueries)
{
    DownloadRequestImp r;
    r.addToken(L"T0");
    r.addToken(L"T1");
    r.addQuery(L"q=1");
    r.setOriginalUrl(L"orig");
    r.setUrls(L"http://a.example/1?authparam=%s;http://b.example/2?authparam=%s");
    EXPECT_EQ(r.getBlockCount(), 2);
    EXPECT_STREQ(r.getId(), L"http://a.example/1?authparam=%s");
    EXPECT_STREQ(r.getOriginalUrl(), L"orig");
    r.setBlockId(1);
    EXPECT_STREQ(r.getUrl(false), L"http://b.example/2?authparam=T1&q=1");
    r.setUrls(nullptr);
    EXPECT_EQ(r.getBlockCount(), 2);
}

TEST(DownloadRequestCurrentUrl, TokenGoesIntoThePlaceholderNotIntoThePath)
{
    DownloadRequestImp r;
    r.setUrls(L"http://a.example/%s/f?authparam=%s");
    r.addToken(L"TOK");
    EXPECT_STREQ(r.getUrl(false), L"http://a.example/%s/f?authparam=TOK");
}

TEST(DownloadRequestLimits, OverLongUrlsAreCutToTheFixedBuffer)
{
    const std::wstring longPath(5000, L'a');
    DownloadRequestImp r;
    r.setUrl((L"http://h.example/" + longPath + L"?authparam=0a0b&SESSION_ID=s&y=" + std::wstring(3000, L'q')).c_str(),
             nullptr, nullptr);
    const wchar_t* url = r.getUrl(false);
    ASSERT_NE(url, nullptr);
    EXPECT_EQ(std::wcslen(url), DownloadRequestImp::kUrlBufferSize - 1);
    EXPECT_EQ(std::wstring(url), (L"http://h.example/" + longPath).substr(0, DownloadRequestImp::kUrlBufferSize - 1));
    EXPECT_EQ(std::wstring(r.getUrlPath()), (L"/" + longPath).substr(0, DownloadRequestImp::kUrlBufferSize - 1 - 16));
    r.setUseAkamai(true);
    EXPECT_EQ(std::wcslen(r.getUrl(true)), DownloadRequestImp::kUrlBufferSize - 1);
}

TEST(DownloadRequestLimits, OverLongTokensAndQueriesAreCut)
{
    DownloadRequestImp r;
    r.setUrls(L"http://h.example/f?authparam=%s");
    r.addToken(std::wstring(3000, L't').c_str());
    EXPECT_EQ(std::wcslen(r.getUrl(false)), DownloadRequestImp::kUrlBufferSize - 1);

    DownloadRequestImp q;
    q.setUrls(L"http://h.example/f");
    q.addQuery(std::wstring(2100, L'q').c_str());
    const std::wstring url = q.getUrl(false);
    EXPECT_EQ(url.size(), DownloadRequestImp::kUrlBufferSize - 1);
    EXPECT_EQ(url.substr(0, 20), L"http://h.example/f?q");
}

TEST(DownloadRequestLimits, LongUrlPathMatchesOnASmallThreadStack)
{
    // The path regex runs on worker threads; a URL filling the whole buffer must not exhaust their stack.
    DownloadRequestImp r;
    r.setUrls((L"http://h.example/" + std::wstring(3000, L'p')).c_str());
    HANDLE thread = CreateThread(
        nullptr, 256 * 1024,
        [](void* arg) -> DWORD {
            auto* request = static_cast<DownloadRequestImp*>(arg);
            return static_cast<DWORD>(std::wcslen(request->getUrlPath()));
        },
        &r, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
    ASSERT_NE(thread, nullptr);
    ASSERT_EQ(WaitForSingleObject(thread, 30000), WAIT_OBJECT_0);
    DWORD code = 0;
    GetExitCodeThread(thread, &code);
    CloseHandle(thread);
    EXPECT_EQ(code, DownloadRequestImp::kUrlBufferSize - 1 - 16);
}

TEST(DownloadRequestFactory, CreatesAnEmptyRequestAndDestroysIt)
{
    DownloadRequest* r = QvDLM::createDownloadRequest();
    ASSERT_NE(r, nullptr);
    EXPECT_STREQ(r->getVersion(), L"1.2");
    EXPECT_EQ(r->getBlockCount(), 1);
    QvDLM::destroy(r);
    QvDLM::destroy(static_cast<DownloadRequest*>(nullptr));
}
