// The trusted-domain test of URL validation, with its deliberate looseness.
#include <gtest/gtest.h>

#include <stdexcept>

#include "QvDLMCodes.h"
#include "net/UrlValidationInternal.h"

namespace {

TEST(UrlDomain, VendorHostsWithAPathAreTrusted)
{
    EXPECT_TRUE(validateUrlDomain(L"https://www.quorvel.com/pkg/a.tar.lzma2"));
    EXPECT_TRUE(validateUrlDomain(L"http://quorvel.com/"));
    EXPECT_TRUE(validateUrlDomain(L"http://downloads.quorvel.com:8080/a"));
}

TEST(UrlDomain, CaseIsFolded)
{
    EXPECT_TRUE(validateUrlDomain(L"HTTPS://WWW.QUORVEL.COM/PKG/A.SFX.EXE"));
    EXPECT_TRUE(validateUrlDomain(L"HTTP://LocalHost:80/x"));
}

TEST(UrlDomain, AHostWithoutAnySlashIsNeverTrusted)
{
    EXPECT_FALSE(validateUrlDomain(L"https://www.quorvel.com"));
    EXPECT_FALSE(validateUrlDomain(L"http://localhost:8080"));
    EXPECT_FALSE(validateUrlDomain(L"https://www.quorvel.com?x=/y"));
}

TEST(UrlDomain, LocalhostByNameOnly)
{
    EXPECT_TRUE(validateUrlDomain(L"http://localhost:18800/a.bin"));
    EXPECT_TRUE(validateUrlDomain(L"http://localhost/a.bin"));
    EXPECT_FALSE(validateUrlDomain(L"http://127.0.0.1:18800/a.bin"));
    EXPECT_FALSE(validateUrlDomain(L"http://127.0.0.1/a.bin"));
}

TEST(UrlDomain, OnlyTheHostPartIsSearched)
{
    EXPECT_FALSE(validateUrlDomain(L"http://example.org/quorvel.com/a"));
    EXPECT_FALSE(validateUrlDomain(L"http://example.org/?h=localhost/"));
    EXPECT_FALSE(validateUrlDomain(L"http://example.org:80/localhost:1/"));
}

TEST(UrlDomain, TheMatchIsALooseSubstring)
{
    // No label boundary: any host merely ending in the vendor's name passes, as does a user part.
    EXPECT_TRUE(validateUrlDomain(L"http://evilquorvel.com/a"));
    EXPECT_TRUE(validateUrlDomain(L"http://quorvel.com:@evil.example/a"));
    EXPECT_TRUE(validateUrlDomain(L"http://user:localhost:x@evil.example/a"));
    EXPECT_TRUE(validateUrlDomain(L"http://notlocalhost/a"));
    EXPECT_FALSE(validateUrlDomain(L"http://quorvel.co/a"));
    EXPECT_FALSE(validateUrlDomain(L"http://quorvel.com.evil.example/a"));
}

TEST(UrlDomain, WithoutSchemeTheSearchStartsAtTheThirdCharacter)
{
    EXPECT_TRUE(validateUrlDomain(L"www.quorvel.com/a"));
    EXPECT_TRUE(validateUrlDomain(L"xxquorvel.com/a"));
    // The first two characters are never looked at.
    EXPECT_FALSE(validateUrlDomain(L"localhost/a"));
    EXPECT_FALSE(validateUrlDomain(L"localhost:18800/a"));
    EXPECT_TRUE(validateUrlDomain(L"//localhost/a"));
}

TEST(UrlDomain, TheSchemeItselfDoesNotMatter)
{
    EXPECT_TRUE(validateUrlDomain(L"ftp://www.quorvel.com/a"));
    EXPECT_TRUE(validateUrlDomain(L"://localhost/a"));
}

TEST(UrlDomain, TooShortATextThrowsFromTheStringClass)
{
    EXPECT_THROW(validateUrlDomain(L""), std::out_of_range);
    EXPECT_THROW(validateUrlDomain(L"a"), std::out_of_range);
    EXPECT_THROW(validateUrlDomain(nullptr), std::out_of_range);
    EXPECT_FALSE(validateUrlDomain(L"ab"));
}

TEST(UrlDomain, NotConnectedCodesFollowTheLastStatus)
{
    EXPECT_EQ(notConnectedCode(12029), qvdlm::validation::ServerNotResponding);
    EXPECT_EQ(notConnectedCode(0x26000010), qvdlm::validation::NetworkDisconnected);
    EXPECT_EQ(notConnectedCode(0x26000012), qvdlm::validation::NetworkError);
    EXPECT_EQ(notConnectedCode(2250), qvdlm::validation::NetworkError);
    EXPECT_EQ(notConnectedCode(0), qvdlm::validation::NetworkError);
}

} // namespace
