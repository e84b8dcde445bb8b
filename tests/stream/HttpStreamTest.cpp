// The HTTP source without a server: URL cracking, time-outs, state records and request headers.
#include <gtest/gtest.h>

#include <windows.h>
#include <wininet.h>

#include <cstring>
#include <cwchar>
#include <string>

#include "QvDLMCodes.h"
#include "stream/HTTPStreamImp.h"

namespace {

constexpr uint32_t kReadFailed = UINT32_MAX;

TEST(HttpStreamUrl, AUrlWithoutSchemeIsFetchedOverHttp)
{
    HTTPStreamImp stream(L"downloads.quorvel.com/pkg/a.bin?x=1", 0, 0);
    ASSERT_TRUE(stream.urlCracked());
    EXPECT_FALSE(stream.isSecure());
    EXPECT_STREQ(stream.hostName(), L"downloads.quorvel.com");
    EXPECT_EQ(stream.port(), 80);
    EXPECT_STREQ(stream.urlPath(), L"/pkg/a.bin");
    EXPECT_STREQ(stream.extraInfo(), L"?x=1");
    std::wstring url;
    stream.url(url);
    EXPECT_EQ(url, L"http://downloads.quorvel.com/pkg/a.bin?x=1");
}

TEST(HttpStreamUrl, CracksHostPortPathAndQuery)
{
    HTTPStreamImp stream(L"http://localhost:18000/a/b.tar.lzma2?authparam=1_ab&S=2", 0, 0);
    ASSERT_TRUE(stream.urlCracked());
    EXPECT_STREQ(stream.hostName(), L"localhost");
    EXPECT_EQ(stream.port(), 18000);
    EXPECT_STREQ(stream.urlPath(), L"/a/b.tar.lzma2");
    EXPECT_STREQ(stream.extraInfo(), L"?authparam=1_ab&S=2");
    EXPECT_EQ(stream.lastStatus(), 0u);
}

TEST(HttpStreamUrl, HttpsOnlyWhenNoPlainHttpAppears)
{
    HTTPStreamImp secure(L"https://www.quorvel.com/a", 0, 0);
    EXPECT_TRUE(secure.isSecure());
    EXPECT_EQ(secure.port(), 443);
    // "http://" anywhere in the text makes it plain HTTP, as the scheme test is a substring search.
    HTTPStreamImp mixed(L"https://www.quorvel.com/a?next=http://x/", 0, 0);
    EXPECT_FALSE(mixed.isSecure());
}

TEST(HttpStreamUrl, AnOverLongPathIsCutSafelyAndRefused)
{
    const std::wstring path(5000, L'p');
    HTTPStreamImp stream((L"http://localhost:1/" + path).c_str(), 0, 0);
    EXPECT_FALSE(stream.urlCracked());
    EXPECT_EQ(stream.lastStatus(), static_cast<uint32_t>(ERROR_INSUFFICIENT_BUFFER));
    // Cut inside its buffer, never beyond, and terminated.
    EXPECT_EQ(std::wcslen(stream.urlPath()), HTTPStreamImp::kCrackBufferLength - 1);
    EXPECT_STREQ(stream.hostName(), L"localhost");
    // A cut URL is never requested.
    EXPECT_EQ(stream.open(true), nullptr);
    EXPECT_EQ(stream.openHead(true), nullptr);
    EXPECT_EQ(stream.lastStatus(), static_cast<uint32_t>(ERROR_INSUFFICIENT_BUFFER));
}

TEST(HttpStreamUrl, AnOverLongHostAndQueryAreCutSafely)
{
    const std::wstring host(3000, L'h');
    const std::wstring query(9000, L'q');
    HTTPStreamImp stream((L"http://" + host + L".com/x?" + query).c_str(), 0, 0);
    EXPECT_FALSE(stream.urlCracked());
    EXPECT_LT(std::wcslen(stream.hostName()), HTTPStreamImp::kCrackBufferLength);
    EXPECT_LT(std::wcslen(stream.extraInfo()), HTTPStreamImp::kCrackBufferLength);
    EXPECT_NE(stream.lastStatus(), 0u);
}

TEST(HttpStreamUrl, APathThatJustFitsIsKept)
{
    const std::wstring path = L"/" + std::wstring(HTTPStreamImp::kCrackBufferLength - 2, L'p');
    HTTPStreamImp stream((L"http://localhost:1" + path).c_str(), 0, 0);
    EXPECT_TRUE(stream.urlCracked());
    EXPECT_EQ(std::wstring(stream.urlPath()), path);
}

TEST(HttpStreamUrl, GarbageAndEmptyUrlsAreRefusedWithAStatus)
{
    for (const wchar_t* url : {L"", L"://", L"http://", L"http:///path-only"}) {
        HTTPStreamImp stream(url, 0, 0);
        EXPECT_FALSE(stream.urlCracked()) << url;
        EXPECT_NE(stream.lastStatus(), 0u) << url;
        EXPECT_EQ(stream.open(false), nullptr) << url;
    }
    HTTPStreamImp none(nullptr, 0, 0);
    EXPECT_FALSE(none.urlCracked());
}

TEST(HttpStreamTimeouts, DefaultsAtCreation)
{
    HTTPStreamImp stream(L"http://localhost/", 0, 0);
    EXPECT_EQ(stream.connectTimeout(), 20000u);
    EXPECT_EQ(stream.receiveTimeout(), 10000u);
    EXPECT_EQ(stream.sendTimeout(), 10000u);
}

TEST(HttpStreamTimeouts, AreCappedAtSixtyAndThirtySeconds)
{
    HTTPStreamImp stream(L"http://localhost/", 0, 0);
    stream.setTimeouts(90000);
    EXPECT_EQ(stream.connectTimeout(), 60000u);
    EXPECT_EQ(stream.receiveTimeout(), 30000u);
    EXPECT_EQ(stream.sendTimeout(), 30000u);
    stream.setTimeouts(10000);
    EXPECT_EQ(stream.connectTimeout(), 10000u);
    EXPECT_EQ(stream.receiveTimeout(), 5000u);
    EXPECT_EQ(stream.sendTimeout(), 5000u);
    stream.setTimeouts(61000);
    EXPECT_EQ(stream.connectTimeout(), 60000u);
    EXPECT_EQ(stream.receiveTimeout(), 30000u);
}

TEST(HttpStreamState, SavesTheTwentyFourByteRecord)
{
    HTTPStreamImp stream(L"http://localhost/", 77, 123456789012LL);
    alignas(8) unsigned char record[32];
    std::memset(record, 0xCC, sizeof record);
    uint64_t capacity = sizeof record;
    ASSERT_EQ(stream.saveState(reinterpret_cast<StreamStateHeader*>(record), &capacity), 24u);
    uint32_t u32 = 0;
    int64_t i64 = 0;
    std::memcpy(&u32, record, 4);
    EXPECT_EQ(u32, 24u);
    std::memcpy(&i64, record + 8, 8);
    EXPECT_EQ(i64, 123456789012LL);
    std::memcpy(&u32, record + 16, 4);
    EXPECT_EQ(u32, 77u);
    EXPECT_EQ(record[24], 0xCC) << "wrote past the record";
}

TEST(HttpStreamState, WritesNothingIntoASmallBuffer)
{
    HTTPStreamImp stream(L"http://localhost/", 1, 2);
    alignas(8) unsigned char record[24];
    std::memset(record, 0xCC, sizeof record);
    uint64_t capacity = 23;
    EXPECT_EQ(stream.saveState(reinterpret_cast<StreamStateHeader*>(record), &capacity), 24u);
    EXPECT_EQ(record[0], 0xCC);
    EXPECT_EQ(stream.saveState(nullptr, &capacity), 24u);
}

TEST(HttpStreamState, RestoresPositionAndDataStart)
{
    HTTPStreamImp saved(L"http://localhost/", 512, 4096);
    qv::HttpStreamState record{};
    uint64_t capacity = sizeof record;
    saved.saveState(reinterpret_cast<StreamStateHeader*>(&record), &capacity);

    HTTPStreamImp restored(L"http://localhost/", 0, 0);
    ASSERT_TRUE(restored.restoreState(reinterpret_cast<StreamStateHeader*>(&record)));
    EXPECT_EQ(restored.position(), 4096);
    EXPECT_EQ(restored.currentPosition(), 4096);
    EXPECT_EQ(restored.dataStart(), 512u);
}

TEST(HttpStreamState, RefusesNullAndShortRecords)
{
    HTTPStreamImp stream(L"http://localhost/", 3, 5);
    EXPECT_FALSE(stream.restoreState(nullptr));
    qv::HttpStreamState record{23, 0, 999, 999, 0};
    EXPECT_FALSE(stream.restoreState(reinterpret_cast<StreamStateHeader*>(&record)));
    EXPECT_EQ(stream.position(), 5);
    EXPECT_EQ(stream.dataStart(), 3u);
}

TEST(HttpStreamSeek, MovesFromStartOrCurrentButNotFromEnd)
{
    HTTPStreamImp stream(L"http://localhost/", 0, 100);
    EXPECT_EQ(stream.seek(1000, 0), 0);
    EXPECT_EQ(stream.position(), 1000);
    EXPECT_EQ(stream.seek(-10, 1), 0);
    EXPECT_EQ(stream.position(), 990);
    EXPECT_EQ(stream.seek(5, 2), 0);
    EXPECT_EQ(stream.position(), 990);
}

TEST(HttpStreamRequest, RangeHeadersAsSent)
{
    HTTPStreamImp stream(L"http://localhost/", 0, 1000);
    // Nothing is open, so sending fails, but the header text is already made.
    EXPECT_FALSE(stream.sendRequest(HTTPStreamImp::kOpenEnded));
    const std::wstring referer = HTTPStreamImp::refererHeader();
    EXPECT_EQ(stream.lastRequestHeaders(), L"Range:bytes=1000-\r\n" + referer);
    EXPECT_NE(stream.lastStatus(), 0u);
    stream.sendRequest(99);
    EXPECT_EQ(stream.lastRequestHeaders(), L"Range:bytes=1000-1099\r\n" + referer);
    stream.sendRequest(0);
    EXPECT_EQ(stream.lastRequestHeaders(), referer);
}

TEST(HttpStreamRequest, RefererIsOneHeaderLine)
{
    const std::wstring referer = HTTPStreamImp::refererHeader();
    EXPECT_EQ(referer.rfind(L"Referer: http", 0), 0u);
    ASSERT_GE(referer.size(), 2u);
    EXPECT_EQ(referer.substr(referer.size() - 2), L"\r\n");
    EXPECT_EQ(referer.find(L"\r\n"), referer.size() - 2);
}

TEST(HttpStreamRequest, ReadingWithoutARequestFails)
{
    HTTPStreamImp stream(L"http://localhost/", 0, 0);
    unsigned char buffer[16];
    EXPECT_EQ(stream.readBytes(buffer, sizeof buffer), kReadFailed);
    EXPECT_EQ(stream.lastStatus(), static_cast<uint32_t>(ERROR_INVALID_HANDLE));
    EXPECT_EQ(stream.readBytesAligned(buffer, sizeof buffer, true), kReadFailed);
    EXPECT_EQ(stream.position(), 0);
    EXPECT_EQ(stream.statusCode(), 0u);
    EXPECT_EQ(stream.contentLength(), -1);
    EXPECT_EQ(stream.contentType(), nullptr);
    uint32_t length = sizeof buffer;
    EXPECT_EQ(stream.rawHeaders(buffer, &length), kReadFailed);
    EXPECT_EQ(stream.rawHeaders(buffer, nullptr), kReadFailed);
    EXPECT_STREQ(stream.httpVersion(), L"");
}

} // namespace
