// URL tokens through the exported C functions, checked against the tests' own MD5.
#include <gtest/gtest.h>

#include <windows.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

#include "UrlAuth.h"
#include "support/Md5.h"

namespace {

constexpr uint64_t kThirtyDays = 2592000;

struct Token {
    int rc = 0;
    int64_t expiry = 0;
    std::string digest;
};

Token makeToken(const char* url, uint64_t start, uint64_t lifetime, const char* key, const char* extra)
{
    Token t;
    char* token = nullptr;
    t.rc = urlauth_gen_token(url, start, lifetime, key, extra, &t.expiry, &token);
    if (token) {
        t.digest = token;
        std::free(token);
    }
    return t;
}

std::string randomText(std::mt19937& rng, size_t minLength, size_t maxLength)
{
    static const char kChars[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/_-.?&=%";
    std::uniform_int_distribution<size_t> length(minLength, maxLength);
    std::uniform_int_distribution<size_t> pick(0, sizeof kChars - 2);
    std::string s(length(rng), ' ');
    for (char& c : s)
        c = kChars[pick(rng)];
    return s;
}

} // namespace

TEST(UrlAuthIndependentMd5, KnownVectors)
{
    EXPECT_EQ(qvtest::md5Hex(""), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(qvtest::md5Hex("abc"), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(qvtest::md5Hex(std::string(1000, 'a')), "cabe45dcc9ae5b66ba86600cca6b8ba8");
}

TEST(UrlAuthToken, AgreesWithIndependentDigestOnFreshRandomCases)
{
    // Seeded from the clock: every run checks cases that exist nowhere else.
    const unsigned seed = GetTickCount() ^ GetCurrentProcessId();
    SCOPED_TRACE(seed);
    std::mt19937 rng(seed);
    std::uniform_int_distribution<uint64_t> startDist(1, 4000000000ull);
    for (int i = 0; i < 200; ++i) {
        const std::string url = "/" + randomText(rng, 1, 300);
        const std::string key = randomText(rng, 1, 64);
        const std::string extra = i % 3 == 0 ? std::string() : randomText(rng, 0, 40);
        const uint64_t start = startDist(rng);
        const uint64_t lifetime = i % 2 ? kThirtyDays : startDist(rng);
        const Token t = makeToken(url.c_str(), start, lifetime, key.c_str(), i % 3 == 0 ? nullptr : extra.c_str());
        ASSERT_EQ(t.rc, 0);
        EXPECT_EQ(t.expiry, static_cast<int64_t>(start + lifetime));
        ASSERT_EQ(t.digest, qvtest::urlTokenDigest(static_cast<uint32_t>(start + lifetime), url, extra, key))
            << "url=" << url << " key=" << key << " extra=" << extra;
    }
}

TEST(UrlAuthToken, StartZeroMeansNowAndNullExtraEqualsEmpty)
{
    const int64_t before = static_cast<int64_t>(time(nullptr));
    const Token a = makeToken("/p/pkg.tar.lzma2", 0, kThirtyDays, "secret", nullptr);
    const int64_t after = static_cast<int64_t>(time(nullptr));
    ASSERT_EQ(a.rc, 0);
    EXPECT_GE(a.expiry, before + static_cast<int64_t>(kThirtyDays));
    EXPECT_LE(a.expiry, after + static_cast<int64_t>(kThirtyDays));

    const uint64_t start = 1700000000;
    const Token nullExtra = makeToken("/x", start, 60, "k", nullptr);
    const Token emptyExtra = makeToken("/x", start, 60, "k", "");
    EXPECT_EQ(nullExtra.digest, emptyExtra.digest);
    EXPECT_EQ(nullExtra.digest, qvtest::urlTokenDigest(1700000060, "/x", "", "k"));
    EXPECT_EQ(makeToken("/x", start, 60, "k", nullptr).digest, nullExtra.digest) << "same inputs, same digest";
    EXPECT_NE(makeToken("/x", start + 1, 60, "k", nullptr).digest, nullExtra.digest);
}

TEST(UrlAuthToken, OnlyTheLowThirtyTwoBitsOfTheExpiryAreHashed)
{
    const uint64_t start = 0x100000000ull + 5; // expiry above 2^32
    const Token t = makeToken("/big", start, 10, "key", nullptr);
    ASSERT_EQ(t.rc, 0);
    EXPECT_EQ(t.expiry, static_cast<int64_t>(start + 10));
    EXPECT_EQ(t.digest, qvtest::urlTokenDigest(15, "/big", "", "key"));
}

TEST(UrlAuthToken, ArgumentsAreCheckedInOrder)
{
    int64_t expiry = 0;
    char* token = nullptr;
    EXPECT_EQ(urlauth_gen_token(nullptr, 1, 1, nullptr, nullptr, &expiry, &token), URLAUTH_E_URL_NULL);
    EXPECT_EQ(urlauth_gen_token("", 1, 1, nullptr, nullptr, &expiry, &token), URLAUTH_E_URL_EMPTY);
    EXPECT_EQ(urlauth_gen_token("/u", 1, 1, nullptr, nullptr, &expiry, &token), URLAUTH_E_KEY_NULL);
    EXPECT_EQ(urlauth_gen_token("/u", 1, 1, "", nullptr, &expiry, &token), URLAUTH_E_KEY_EMPTY);
    EXPECT_EQ(token, nullptr);
}

TEST(UrlAuthToken, NullExpiryCellIsAllowed)
{
    char* token = nullptr;
    ASSERT_EQ(urlauth_gen_token("/u", 100, 1, "k", nullptr, nullptr, &token), 0);
    ASSERT_NE(token, nullptr);
    EXPECT_EQ(std::string(token), qvtest::urlTokenDigest(101, "/u", "", "k"));
    std::free(token);
}

TEST(UrlAuthToken, CallerTokenPointerMakesTheDigestOverwriteTheUrl)
{
    // Long-standing behaviour: a non-null *tokenOut means the URL's own memory receives the digest.
    std::string url = "/a/url/long/enough/to/hold/a/whole/digest/text";
    const std::string expected = qvtest::urlTokenDigest(1001, url, "", "k");
    char dummy = 0;
    char* token = &dummy;
    ASSERT_EQ(urlauth_gen_token(url.data(), 1000, 1, "k", nullptr, nullptr, &token), 0);
    EXPECT_EQ(token, url.data());
    EXPECT_EQ(std::string(token), expected);
}

TEST(UrlAuthToken, ShortUrlReceivingTheDigestIsNeverOverrun)
{
    // The caller's URL is only known to be as long as its text: the digest is cut to fit.
    char buffer[16] = "/short";
    std::memset(buffer + 7, 0x5A, sizeof buffer - 7);
    char dummy = 0;
    char* token = &dummy;
    ASSERT_EQ(urlauth_gen_token(buffer, 1000, 1, "k", nullptr, nullptr, &token), 0);
    EXPECT_EQ(std::strlen(buffer), 6u);
    EXPECT_EQ(std::string(buffer), qvtest::urlTokenDigest(1001, "/short", "", "k").substr(0, 6));
    for (size_t i = 7; i < sizeof buffer; ++i)
        EXPECT_EQ(buffer[i], 0x5A) << i;
}

TEST(UrlAuthUrl, AppendsSeparatorExpiryAndDigest)
{
    int64_t expiry = 0;
    char* out = nullptr;
    ASSERT_EQ(urlauth_gen_URL("http://h/p/f.bin", 1000, 24, "key", nullptr, nullptr, &expiry, &out), 0);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(std::string(out), "http://h/p/f.bin?1024_" + qvtest::urlTokenDigest(1024, "http://h/p/f.bin", "", "key"));
    std::free(out);

    out = nullptr;
    ASSERT_EQ(urlauth_gen_URL("http://h/p?a=1", 1000, 24, "key", "x", "myparam", &expiry, &out), 0);
    EXPECT_EQ(std::string(out), "http://h/p?a=1&1024_" + qvtest::urlTokenDigest(1024, "http://h/p?a=1", "x", "key"));
    std::free(out);
}

TEST(UrlAuthUrl, ParameterNameMustBeFiveToTwelveCharacters)
{
    int64_t expiry = 0;
    char* out = nullptr;
    EXPECT_EQ(urlauth_gen_URL("/u", 1, 1, "k", nullptr, "abcd", &expiry, &out), URLAUTH_E_URL_PARAM);
    EXPECT_EQ(urlauth_gen_URL("/u", 1, 1, "k", nullptr, "abcdefghijklm", &expiry, &out), URLAUTH_E_URL_PARAM);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(urlauth_gen_URL("/u", 1, 1, "k", nullptr, "abcde", &expiry, &out), 0);
    std::free(out);
    out = nullptr;
    EXPECT_EQ(urlauth_gen_URL("/u", 1, 1, "k", nullptr, "abcdefghijkl", &expiry, &out), 0);
    std::free(out);
    // Token errors come first and are returned as they are.
    EXPECT_EQ(urlauth_gen_URL("/u", 1, 1, "", nullptr, "ab", &expiry, &out), URLAUTH_E_KEY_EMPTY);
}

TEST(UrlAuthUrl, CallerUrlPointerWritesIntoTheExpiryCellWithoutOverrun)
{
    struct {
        int64_t expiry;
        char guard[8];
    } cell{};
    std::memset(cell.guard, 0x33, sizeof cell.guard);
    char dummy = 0;
    char* out = &dummy;
    ASSERT_EQ(urlauth_gen_URL("/u", 1000, 1, "k", nullptr, nullptr, &cell.expiry, &out), 0);
    EXPECT_EQ(out, reinterpret_cast<char*>(&cell.expiry));
    EXPECT_EQ(std::string(out), "/u?1001");
    for (char c : cell.guard)
        EXPECT_EQ(c, 0x33);
}

TEST(UrlAuthVersion, IsExported)
{
    ASSERT_NE(url_auth_version, nullptr);
    EXPECT_STREQ(url_auth_version, "1.1.3");
}
