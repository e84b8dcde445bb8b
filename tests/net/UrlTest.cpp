// URL tokens checked against the tests' own MD5, the trusted-domain rule with its deliberate looseness,
// and validateUrl against nginx and the fault server: its codes, the size it records and its one message.
#include <gtest/gtest.h>

#include <windows.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <stdexcept>
#include <utility>
#include <string>

#include "UrlAuth.h"
#include "UrlValidation.h"
#include "net/UrlValidationInternal.h"
#include "support/EventRecorder.h"
#include "support/FakeRequest.h"
#include "support/Md5.h"
#include "support/TestServers.h"

namespace {

// The digest (empty on failure) and the expiry of one token.
std::pair<std::string, int64_t> token(const char* url, uint64_t start, uint64_t life, const char* key, const char* extra,
                                      int expectedRc = 0)
{
    int64_t expiry = 0;
    char* token = nullptr;
    EXPECT_EQ(urlauth_gen_token(url, start, life, key, extra, &expiry, &token), expectedRc) << (url ? url : "(null)");
    std::pair<std::string, int64_t> result{token ? token : "", expiry};
    std::free(token);
    return result;
}

TEST(UrlToken, AgreesWithAnIndependentDigestOnFreshRandomCases)
{
    const unsigned seed = GetTickCount() ^ GetCurrentProcessId(); // every run checks new cases
    SCOPED_TRACE(seed);
    std::mt19937 rng(seed);
    auto text = [&rng](size_t least, size_t most) {
        std::string s(std::uniform_int_distribution<size_t>(least, most)(rng), ' ');
        for (char& c : s)
            c = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/_-.?&=%"[rng() % 70];
        return s;
    };
    for (int i = 0; i < 200; ++i) {
        const std::string url = "/" + text(1, 300), key = text(1, 64), extra = i % 3 ? text(0, 40) : "";
        const uint64_t start = 1 + rng() % 4000000000u, life = i % 2 ? 2592000u : rng();
        const auto [digest, expiry] = token(url.c_str(), start, life, key.c_str(), i % 3 ? extra.c_str() : nullptr);
        EXPECT_EQ(expiry, static_cast<int64_t>(start + life));
        ASSERT_EQ(digest, qvtest::urlTokenDigest(static_cast<uint32_t>(start + life), url, extra, key)) << url;
    }
}

TEST(UrlToken, EdgesOfTheInputs)
{
    EXPECT_EQ(token("/x", 1700000000, 60, "k", "").first, qvtest::urlTokenDigest(1700000060, "/x", "", "k"));
    EXPECT_EQ(token("/big", 0x100000000ull - 30, 60, "k", nullptr).first, qvtest::urlTokenDigest(30, "/big", "", "k"));
    EXPECT_EQ(token(nullptr, 1, 1, nullptr, nullptr, -1).first, "");
    EXPECT_EQ(token("", 1, 1, nullptr, nullptr, -2).first, "");
    EXPECT_EQ(token("/u", 1, 1, nullptr, nullptr, -3).first, "");
    EXPECT_EQ(token("/u", 1, 1, "", nullptr, -4).first, "");
    const int64_t now = static_cast<int64_t>(time(nullptr));
    const int64_t expiry = token("/p/pkg.tar.lzma2", 0, 2592000, "secret", nullptr).second; // start 0 is now
    EXPECT_TRUE(expiry >= now + 2592000 && expiry <= now + 2592001) << expiry - now;
    char* digest = nullptr; // no expiry cell
    ASSERT_EQ(urlauth_gen_token("/u", 100, 1, "k", nullptr, nullptr, &digest), 0);
    EXPECT_EQ(std::string(digest), qvtest::urlTokenDigest(101, "/u", "", "k"));
    std::free(digest);
    EXPECT_STREQ(url_auth_version, "1.1.3");
}

TEST(UrlToken, CallerBuffersReceiveTheResultsWithoutOverrun)
{
    // A non-null *tokenOut makes the URL's own memory receive the digest, cut to the URL's length.
    char url[48] = "/a/url/long/enough/to/hold/a/whole/digest/text", shortUrl[16] = "/short", dummy = 0;
    const std::string expected = qvtest::urlTokenDigest(1001, url, "", "k");
    std::memset(shortUrl + 7, 0x5A, sizeof shortUrl - 7);
    for (char* buffer : {url, shortUrl}) {
        char* out = &dummy;
        ASSERT_EQ(urlauth_gen_token(buffer, 1000, 1, "k", nullptr, nullptr, &out), 0);
        EXPECT_EQ(out, buffer);
    }
    EXPECT_EQ(std::string(url), expected);
    EXPECT_EQ(std::string(shortUrl), qvtest::urlTokenDigest(1001, "/short", "", "k").substr(0, 6));
    EXPECT_EQ(std::string(shortUrl + 7, 9), std::string(9, 0x5A));
    // A non-null *urlOut makes the expiry cell receive the URL, cut to the cell.
    int64_t cell[2] = {0, 0x6767676767676767}; // the expiry and a guard behind it
    char* out = &dummy;
    ASSERT_EQ(urlauth_gen_URL("/u", 1000, 1, "k", nullptr, nullptr, cell, &out), 0);
    EXPECT_TRUE(out == reinterpret_cast<char*>(cell) && std::string(out) == "/u?1001" && cell[1] == 0x6767676767676767);
}

TEST(UrlToken, TokenedUrls)
{
    const struct {
        const char *url, *key, *extra, *param;
        int rc;
        const char* tail; // separator and expiry between the URL and the digest
    } rows[] = {{"http://h/p/f.bin", "key", nullptr, nullptr, 0, "?1024_"}, {"http://h/p?a=1", "key", "x", "myparam", 0, "&1024_"},
                {"/u", "k", nullptr, "abcde", 0, "?1024_"}, {"/u", "k", nullptr, "abcdefghijkl", 0, "?1024_"},
                {"/u", "k", nullptr, "abcd", -101, ""}, {"/u", "k", nullptr, "abcdefghijklm", -101, ""}, {"/u", "", nullptr, "ab", -4, ""}};
    for (const auto& row : rows) {
        int64_t expiry = 0;
        char* out = nullptr;
        EXPECT_EQ(urlauth_gen_URL(row.url, 1000, 24, row.key, row.extra, row.param, &expiry, &out), row.rc) << row.param;
        EXPECT_EQ(out ? std::string(out) : "",
                  row.rc ? "" : row.url + (row.tail + qvtest::urlTokenDigest(1024, row.url, row.extra ? row.extra : "", row.key)));
        std::free(out);
    }
}

TEST(UrlDomain, OnlyTheHostPartIsSearchedForATrustedName)
{
    const std::pair<const wchar_t*, bool> rows[] = {
        {L"https://www.quorvel.com/pkg/a.tar.lzma2", true}, {L"http://quorvel.com/", true}, {L"http://downloads.quorvel.com:8080/a", true},
        {L"HTTPS://WWW.QUORVEL.COM/PKG/A.SFX.EXE", true}, {L"HTTP://LocalHost:80/x", true}, {L"http://localhost/a.bin", true},
        {L"https://www.quorvel.com", false}, {L"http://localhost:8080", false}, {L"https://www.quorvel.com?x=/y", false}, // no "/"
        {L"http://127.0.0.1:18800/a.bin", false}, {L"http://example.org/quorvel.com/a", false}, {L"http://example.org/?h=localhost/", false},
        {L"http://example.org:80/localhost:1/", false}, {L"http://evilquorvel.com/a", true}, // no label boundary
        {L"http://quorvel.com:@evil.example/a", true}, {L"http://user:localhost:x@evil.example/a", true}, {L"http://quorvel.co/a", false},
        {L"http://quorvel.com.evil.example/a", false}, {L"www.quorvel.com/a", true}, {L"localhost/a", false}, // from the third character
        {L"//localhost/a", true}, {L"ftp://www.quorvel.com/a", true}, {L"://localhost/a", true}, {L"ab", false}};
    for (const auto& [url, trusted] : rows)
        EXPECT_EQ(validateUrlDomain(url), trusted) << qvtest::narrow(url);
    EXPECT_THROW(validateUrlDomain(L"a"), std::out_of_range);
    EXPECT_THROW(validateUrlDomain(nullptr), std::out_of_range);
}

TEST(UrlValidation, CodesSizesAndMessages)
{
    const std::wstring direct = L"http://127.0.0.1:" + std::to_wstring(qvtest::port(qvtest::kNginxPortOffset)) + L"/";
    const std::wstring closed = L"http://localhost:" + std::to_wstring(qvtest::port(19)) + L"/a.bin";
    struct Row {
        std::wstring url;
        unsigned long code, otherCode; // Windows and Wine differ on a refused connection
        int64_t size; // -7: never recorded
        std::wstring message; // "{url}" stands for the URL; a final '*' for any rest; empty: none
    };
    const Row rows[] = {
        {qvtest::nginxUrl(L"hello.txt"), 0, 0, 13, L"validateUrl: Content length is 13\t{url} "},
        {qvtest::nginxUrl(L"pattern-2-4198403.bin"), 0, 0, 4198403, L"validateUrl: Content length is 4198403\t{url} "},
        {qvtest::nginxUrl(L"empty.bin"), 2, 2, 0, L"validateUrl: Content length is 0\t{url} "},
        {qvtest::faultUrl(L"empty"), 2, 2, 0, L"validateUrl: Content length is 0\t{url} "},
        {qvtest::faultUrl(L"status/403"), 4, 4, 0, L"validateUrl: HTTP status: 403\t{url} "},
        {qvtest::faultUrl(L"status/500"), 2, 2, 0, L"validateUrl: HTTP status: 500\t{url} "},
        {qvtest::nginxUrl(L"missing.bin"), 2, 2, 0, L"validateUrl: HTTP status: 404\t{url} "},
        {qvtest::faultUrl(L"close"), 2, 2, 0, L"validateUrl: HTTP status: 0\t{url} "},
        {qvtest::faultUrl(L"status/407"), 20, 20, 0, L""},
        {qvtest::nginxUrl(std::wstring(3000, L'p')), 2, 2, 0, L"validateUrl: HttpOpenRequest(HAED) failed\t{url} "},
        {closed, 19, 17, 0, L"validateUrl: HTTP stream not connected. URL: {url}. status: *"},
        {direct + L"hello.txt", 2, 2, -7, L"validateUrl: validateUrlDomain failed for URL: {url}"},
        {L"https://www.quorvel.com", 2, 2, -7, L"validateUrl: validateUrlDomain failed for URL: {url}"},
        {L"a", 2, 2, -7, L"validateUrl: validateUrlDomain failed for URL: {url}"},
        {L"http://example.org/" + std::wstring(5000, L'x'), 2, 2, -7, // cut at 1023 characters
         L"validateUrl: validateUrlDomain failed for URL: http://example.org/" + std::wstring(957, L'x')}};
    for (const Row& row : rows) {
        FakeRequest request(row.url);
        request.setContentLength(-7);
        EventRecorder events;
        const unsigned long code = validateUrl(&request);
        EXPECT_TRUE(code == row.code || code == row.otherCode) << code << " " << qvtest::narrow(row.url.substr(0, 80));
        EXPECT_EQ(request.getContentLength(), row.size);
        const auto seen = events.events();
        ASSERT_EQ(seen.size(), row.message.empty() ? 0u : 1u);
        if (row.message.empty())
            continue;
        std::wstring expected = row.message;
        if (const size_t at = expected.find(L"{url}"); at != std::wstring::npos)
            expected.replace(at, 5, row.url);
        const bool prefix = expected.back() == L'*';
        EXPECT_EQ(seen[0].source, nullptr);
        EXPECT_EQ(prefix ? seen[0].text.substr(0, expected.size() - 1) + L"*" : seen[0].text, expected);
    }
    FakeRequest noUrl;
    EXPECT_EQ(validateUrl(&noUrl), 2u);
    EXPECT_EQ(validateUrl(nullptr), 2u);
}

} // namespace
