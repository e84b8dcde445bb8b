// The HTTP source against real servers on loopback: nginx for correct answers, the fault server for
// broken ones (fixtures "nginx" and "faultserver").
#include <gtest/gtest.h>

#include <windows.h>
#include <wininet.h>

#include <memory>
#include <string>
#include <vector>

#include "QvDLMCodes.h"
#include "stream/HTTPStreamImp.h"
#include "stream/TarTestBlocks.h"
#include "support/TestServers.h"
#include "support/TestSupport.h"

namespace {

constexpr uint32_t kReadFailed = UINT32_MAX;
constexpr uint32_t kChunk = 64 * 1024;
constexpr int kMaxReads = 100000;

struct ReadResult {
    std::string data;
    bool failed = false;
    uint32_t status = 0;
};

// Reads until the end of the body or a failure (bounded), as the source thread does.
ReadResult readAll(HTTPStreamImp& stream, uint32_t chunk = kChunk, bool aligned = false)
{
    ReadResult result;
    std::vector<uint8_t> buffer(chunk);
    for (int i = 0; i < kMaxReads; ++i) {
        const uint32_t n = aligned ? stream.readBytesAligned(buffer.data(), chunk, true)
                                   : stream.readBytes(buffer.data(), chunk);
        if (n == kReadFailed) {
            result.failed = true;
            result.status = stream.lastStatus();
            return result;
        }
        if (n == 0)
            return result;
        result.data.append(reinterpret_cast<const char*>(buffer.data()), n);
    }
    ADD_FAILURE() << "body never ended";
    return result;
}

// A scratch file in the served folder, removed afterwards.
class ServedFile {
public:
    ServedFile(const std::wstring& name, const std::string& bytes)
        : name_(name + L"-" + std::to_wstring(GetCurrentProcessId()) + L".bin"), path_(qvtest::wwwDir() + L"\\" + name_)
    {
        EXPECT_TRUE(qvtest::writeFile(path_, bytes));
    }
    ~ServedFile() { DeleteFileW(path_.c_str()); }
    const std::wstring& name() const { return name_; }

private:
    std::wstring name_;
    std::wstring path_;
};

std::wstring uniqueKey()
{
    return std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(GetTickCount64());
}

const std::string& pattern1()
{
    static const std::string bytes = qvtest::patternBytes(qvtest::kPattern1Size, 1);
    return bytes;
}

// nginx: answers as they should be ---------------------------------------------------------------

TEST(HttpStreamNginx, FetchesAWholeFile)
{
    HTTPStreamImp stream(qvtest::nginxUrl(qvtest::patternFileName(qvtest::kPattern1Size, 1)).c_str(), 0, 0);
    ASSERT_EQ(stream.connect(), &stream) << stream.lastStatus();
    EXPECT_EQ(stream.statusCode(), 200u);
    EXPECT_EQ(stream.contentLength(), static_cast<int64_t>(qvtest::kPattern1Size));
    EXPECT_STREQ(stream.httpVersion(), L"HTTP/1.1");
    ASSERT_NE(stream.contentType(), nullptr);
    EXPECT_STREQ(stream.contentType(), L"application/octet-stream");
    const ReadResult result = readAll(stream);
    ASSERT_FALSE(result.failed) << result.status;
    EXPECT_EQ(result.data == pattern1(), true);
    EXPECT_EQ(stream.position(), static_cast<int64_t>(qvtest::kPattern1Size));
    EXPECT_EQ(stream.lastStatus(), 0u);
}

TEST(HttpStreamNginx, ResumesFromByte1000WithExactlyTheRest)
{
    HTTPStreamImp stream(qvtest::nginxUrl(qvtest::patternFileName(qvtest::kPattern1Size, 1)).c_str(), 0, 1000);
    ASSERT_EQ(stream.reconnect(), &stream) << stream.lastStatus();
    EXPECT_EQ(stream.statusCode(), 206u);
    EXPECT_EQ(stream.contentLength(), static_cast<int64_t>(qvtest::kPattern1Size - 1000));
    const ReadResult result = readAll(stream);
    ASSERT_FALSE(result.failed) << result.status;
    ASSERT_EQ(result.data.size(), qvtest::kPattern1Size - 1000);
    EXPECT_TRUE(result.data == pattern1().substr(1000));
    EXPECT_EQ(stream.position(), static_cast<int64_t>(qvtest::kPattern1Size));
}

TEST(HttpStreamNginx, ReadsAcrossTheFourMegabyteBuffer)
{
    const std::string expected = qvtest::patternBytes(qvtest::kPattern2Size, 2);
    HTTPStreamImp stream(qvtest::nginxUrl(qvtest::patternFileName(qvtest::kPattern2Size, 2)).c_str(), 0, 0);
    ASSERT_EQ(stream.reconnect(), &stream) << stream.lastStatus();
    const ReadResult result = readAll(stream, kLinkBufferSize);
    ASSERT_FALSE(result.failed) << result.status;
    EXPECT_EQ(result.data.size(), expected.size());
    EXPECT_TRUE(result.data == expected);
}

TEST(HttpStreamNginx, AClosedRangeAsksForOneByteMoreThanItsLength)
{
    HTTPStreamImp stream(qvtest::nginxUrl(qvtest::patternFileName(qvtest::kPattern1Size, 1)).c_str(), 0, 100);
    ASSERT_EQ(stream.open(false), &stream) << stream.lastStatus();
    ASSERT_TRUE(stream.sendRequest(99)) << stream.lastStatus();
    EXPECT_EQ(stream.statusCode(), 206u);
    const ReadResult result = readAll(stream);
    ASSERT_FALSE(result.failed) << result.status;
    EXPECT_TRUE(result.data == pattern1().substr(100, 100));
}

TEST(HttpStreamNginx, HeadReportsTheLength)
{
    HTTPStreamImp stream(qvtest::nginxUrl(qvtest::patternFileName(qvtest::kPattern2Size, 2)).c_str(), 0, 0);
    ASSERT_TRUE(stream.checkConnection()) << stream.lastStatus();
    ASSERT_EQ(stream.openHead(true), &stream) << stream.lastStatus();
    EXPECT_EQ(stream.statusCode(), 200u);
    EXPECT_EQ(stream.contentLength(), static_cast<int64_t>(qvtest::kPattern2Size));
    char headers[4096];
    uint32_t length = sizeof headers;
    ASSERT_NE(stream.rawHeaders(headers, &length), kReadFailed) << stream.lastStatus();
    const std::wstring text(reinterpret_cast<const wchar_t*>(headers), length / sizeof(wchar_t));
    EXPECT_NE(text.find(L"Content-Length: " + std::to_wstring(qvtest::kPattern2Size)), std::wstring::npos);
}

TEST(HttpStreamNginx, RawHeadersReportTheSizeTheyNeed)
{
    HTTPStreamImp stream(qvtest::nginxUrl(L"hello.txt").c_str(), 0, 0);
    ASSERT_EQ(stream.connect(), &stream) << stream.lastStatus();
    char tiny[4];
    uint32_t length = sizeof tiny;
    EXPECT_EQ(stream.rawHeaders(tiny, &length), kReadFailed);
    EXPECT_EQ(stream.lastStatus(), static_cast<uint32_t>(ERROR_INSUFFICIENT_BUFFER));
    EXPECT_GT(length, sizeof tiny);
}

TEST(HttpStreamNginx, AUrlWithoutSchemeIsFetched)
{
    const std::wstring url = L"localhost:" + std::to_wstring(qvtest::port(qvtest::kNginxPortOffset)) + L"/hello.txt";
    HTTPStreamImp stream(url.c_str(), 0, 0);
    ASSERT_EQ(stream.connect(), &stream) << stream.lastStatus();
    const ReadResult result = readAll(stream);
    ASSERT_FALSE(result.failed) << result.status;
    EXPECT_EQ(result.data, "hello, world\n");
}

TEST(HttpStreamNginx, AMissingFileIsNotHandedOutAsData)
{
    HTTPStreamImp stream(qvtest::nginxUrl(L"no-such-file.bin").c_str(), 0, 0);
    ASSERT_EQ(stream.connect(), &stream) << stream.lastStatus();
    EXPECT_EQ(stream.statusCode(), 404u);
    const ReadResult result = readAll(stream);
    EXPECT_TRUE(result.failed);
    EXPECT_EQ(result.status, qvdlm::HttpErrorBase + 404);
    EXPECT_TRUE(result.data.empty());
}

TEST(HttpStreamNginx, AnOverLongPathIsNeverRequested)
{
    HTTPStreamImp stream(qvtest::nginxUrl(std::wstring(3000, L'a')).c_str(), 0, 0);
    EXPECT_EQ(stream.connect(), nullptr);
    EXPECT_EQ(stream.lastStatus(), static_cast<uint32_t>(ERROR_INSUFFICIENT_BUFFER));
}

TEST(HttpStreamNginx, AClosedPortIsNotConnected)
{
    const std::wstring url = L"http://localhost:" + std::to_wstring(qvtest::port(19)) + L"/x";
    HTTPStreamImp stream(url.c_str(), 0, 0);
    EXPECT_FALSE(stream.checkConnection());
    // Wine answers 2250 for a refused connection, Windows 12029.
    EXPECT_NE(stream.lastStatus(), 0u);
    EXPECT_EQ(stream.connect(), nullptr);
    EXPECT_EQ(stream.reconnect(), nullptr);
    EXPECT_NE(stream.lastStatus(), 0u);
}

// Self-extracting packages: stub, header, payload ----------------------------------------------

TEST(HttpStreamAligned, HandsOnOnlyThePayloadBehindTheHeader)
{
    const std::string stub = qvtest::patternBytes(3001, 21);
    const std::string payload = qvtest::patternBytes(200000, 22);
    ServedFile file(L"sfx", stub + qvtest::tarHeader("payload.tar.lzma2", payload.size()) + payload);
    HTTPStreamImp stream(qvtest::nginxUrl(file.name()).c_str(), 0, 0);
    ASSERT_EQ(stream.reconnect(), &stream) << stream.lastStatus();
    const ReadResult result = readAll(stream, kChunk, true);
    ASSERT_FALSE(result.failed) << result.status;
    EXPECT_EQ(stream.dataStart(), 3001u + 512u);
    EXPECT_EQ(result.data.size(), payload.size());
    EXPECT_TRUE(result.data == payload);
}

TEST(HttpStreamAligned, AHeaderAtTheEndOfTheFirstReadSkipsIntoTheNext)
{
    // The header ends the first 4096-byte read: the whole read is stub and header.
    const std::string stub = qvtest::patternBytes(4096 - 512, 23);
    const std::string payload = qvtest::patternBytes(10000, 24);
    ServedFile file(L"sfx-edge", stub + qvtest::tarHeader("p", payload.size()) + payload);
    HTTPStreamImp stream(qvtest::nginxUrl(file.name()).c_str(), 0, 0);
    ASSERT_EQ(stream.reconnect(), &stream) << stream.lastStatus();
    const ReadResult result = readAll(stream, 4096, true);
    ASSERT_FALSE(result.failed) << result.status;
    EXPECT_TRUE(result.data == payload);
}

TEST(HttpStreamAligned, WithoutAHeaderEverythingPasses)
{
    const std::string bytes = qvtest::patternBytes(50000, 25);
    ServedFile file(L"plain", bytes);
    HTTPStreamImp stream(qvtest::nginxUrl(file.name()).c_str(), 0, 0);
    ASSERT_EQ(stream.reconnect(), &stream) << stream.lastStatus();
    const ReadResult result = readAll(stream, kChunk, true);
    ASSERT_FALSE(result.failed) << result.status;
    EXPECT_EQ(stream.dataStart(), 0u);
    EXPECT_TRUE(result.data == bytes);
}

TEST(HttpStreamAligned, AResumedSourceDoesNotLookForTheHeaderAgain)
{
    const std::string stub = qvtest::patternBytes(700, 26);
    // A second header inside the payload must be passed on as data after a resumption.
    const std::string payload = qvtest::patternBytes(5000, 27) + qvtest::tarHeader("inner", 1) + qvtest::patternBytes(3000, 28);
    ServedFile file(L"sfx-resume", stub + qvtest::tarHeader("p", payload.size()) + payload);
    const uint32_t dataStart = 700 + 512;
    HTTPStreamImp stream(qvtest::nginxUrl(file.name()).c_str(), dataStart, dataStart + 1000);
    ASSERT_EQ(stream.reconnect(), &stream) << stream.lastStatus();
    const ReadResult result = readAll(stream, kChunk, true);
    ASSERT_FALSE(result.failed) << result.status;
    EXPECT_EQ(stream.dataStart(), dataStart);
    EXPECT_TRUE(result.data == payload.substr(1000));
}

// The fault server: answers nginx will not give ------------------------------------------------

class HttpStreamFaults : public ::testing::Test {
protected:
    static std::unique_ptr<HTTPStreamImp> get(const std::wstring& path, int64_t position = 0)
    {
        return std::make_unique<HTTPStreamImp>(qvtest::faultUrl(path).c_str(), 0, position);
    }
};

TEST_F(HttpStreamFaults, ErrorStatusesAreReportedAndNeverReadAsData)
{
    for (uint32_t code : {403u, 404u, 500u}) {
        auto stream = get(L"status/" + std::to_wstring(code));
        ASSERT_EQ(stream->connect(), stream.get()) << code << " " << stream->lastStatus();
        EXPECT_EQ(stream->statusCode(), code);
        const ReadResult result = readAll(*stream);
        EXPECT_TRUE(result.failed) << code;
        EXPECT_EQ(result.status, qvdlm::HttpErrorBase + code);
        EXPECT_EQ(stream->position(), 0);
    }
}

TEST_F(HttpStreamFaults, ProxyAuthenticationRequiredEndsTheHeadLoop)
{
    auto stream = get(L"status/407");
    ASSERT_EQ(stream->openHead(true), stream.get()) << stream->lastStatus();
    EXPECT_EQ(stream->statusCode(), 407u);
}

TEST_F(HttpStreamFaults, ContentLengthZeroIsAnEmptyBody)
{
    auto stream = get(L"empty");
    ASSERT_EQ(stream->connect(), stream.get()) << stream->lastStatus();
    EXPECT_EQ(stream->contentLength(), 0);
    uint8_t buffer[64];
    EXPECT_EQ(stream->readBytes(buffer, sizeof buffer), 0u);
    EXPECT_EQ(stream->lastStatus(), 0u);
}

TEST_F(HttpStreamFaults, AConnectionClosedMidBodyIsATruncationNotAnEnd)
{
    auto stream = get(L"fin");
    ASSERT_EQ(stream->connect(), stream.get()) << stream->lastStatus();
    const ReadResult result = readAll(*stream, 4096);
    ASSERT_TRUE(result.failed) << "a truncated body passed as complete";
    EXPECT_EQ(result.status, static_cast<uint32_t>(ERROR_INTERNET_CONNECTION_ABORTED));
    EXPECT_EQ(result.data.size(), qvtest::kFaultCut);
    EXPECT_TRUE(result.data == qvtest::patternBytes(qvtest::kPattern3Size, 3).substr(0, qvtest::kFaultCut));
    EXPECT_EQ(stream->position(), static_cast<int64_t>(qvtest::kFaultCut));
}

TEST_F(HttpStreamFaults, AResetMidBodyFails)
{
    auto stream = get(L"rst");
    if (stream->connect() == nullptr) {
        // The reset overtook the answer's head: the send fails instead of a read.
        EXPECT_NE(stream->lastStatus(), 0u);
        return;
    }
    const ReadResult result = readAll(*stream, 4096);
    ASSERT_TRUE(result.failed);
    EXPECT_NE(result.status, 0u);
    EXPECT_LE(result.data.size(), qvtest::kFaultCut);
    EXPECT_TRUE(result.data == qvtest::patternBytes(qvtest::kPattern3Size, 3).substr(0, result.data.size()));
}

TEST_F(HttpStreamFaults, AStallLongerThanTheReceiveTimeOutFails)
{
    auto stream = get(L"stall/6000");
    stream->setTimeouts(2000); // 1 s to receive
    ASSERT_EQ(stream->connect(), stream.get()) << stream->lastStatus();
    const ReadResult result = readAll(*stream, 4096);
    ASSERT_TRUE(result.failed) << "read " << result.data.size();
    // Windows reports a receive time-out as 12002; Wine as 10060 (WSAETIMEDOUT) or 12030.
    EXPECT_TRUE(result.status == ERROR_INTERNET_TIMEOUT || result.status == WSAETIMEDOUT ||
                result.status == ERROR_INTERNET_CONNECTION_ABORTED)
        << result.status;
    EXPECT_LE(result.data.size(), qvtest::kFaultCut);
}

TEST_F(HttpStreamFaults, AStallBeforeTheAnswerFailsTheSend)
{
    auto stream = get(L"stall-head/6000");
    stream->setTimeouts(2000);
    EXPECT_EQ(stream->connect(), nullptr);
    EXPECT_TRUE(stream->lastStatus() == ERROR_INTERNET_TIMEOUT || stream->lastStatus() == WSAETIMEDOUT ||
                stream->lastStatus() == ERROR_INTERNET_CONNECTION_ABORTED)
        << stream->lastStatus();
}

TEST_F(HttpStreamFaults, ACloseBeforeAnyAnswerIsNeverAnEmptyBody)
{
    auto stream = get(L"close");
    if (stream->connect() == nullptr) {
        EXPECT_NE(stream->lastStatus(), 0u); // Windows fails the send itself
        return;
    }
    // Wine accepts the send and reports status 0.
    EXPECT_EQ(stream->statusCode(), 0u);
    uint8_t buffer[64];
    EXPECT_EQ(stream->readBytes(buffer, sizeof buffer), kReadFailed);
    EXPECT_EQ(stream->lastStatus(), static_cast<uint32_t>(ERROR_HTTP_INVALID_SERVER_RESPONSE));
}

TEST_F(HttpStreamFaults, AWholeBodyInsteadOfTheAskedRangeIsRefused)
{
    auto stream = get(L"status/200", 5);
    ASSERT_EQ(stream->reconnect(), stream.get()) << stream->lastStatus();
    uint8_t buffer[64];
    EXPECT_EQ(stream->readBytes(buffer, sizeof buffer), kReadFailed);
    EXPECT_EQ(stream->lastStatus(), qvdlm::HttpErrorBase + 200);
    EXPECT_EQ(stream->position(), 5);
}

TEST_F(HttpStreamFaults, TheResumedRequestCarriesRangeAndReferer)
{
    auto stream = get(L"echo", 1000);
    ASSERT_EQ(stream->reconnect(), stream.get()) << stream->lastStatus();
    EXPECT_EQ(stream->statusCode(), 206u);
    const ReadResult result = readAll(*stream);
    ASSERT_FALSE(result.failed) << result.status;
    std::wstring referer = HTTPStreamImp::refererHeader();
    referer.resize(referer.size() - 2);
    EXPECT_NE(result.data.find("GET /echo HTTP/1.1"), std::string::npos) << result.data;
    EXPECT_NE(result.data.find("Range: bytes=1000-\r\n"), std::string::npos) << result.data;
    EXPECT_NE(result.data.find(qvtest::narrow(referer) + "\r\n"), std::string::npos) << result.data;
    EXPECT_NE(result.data.find("User-Agent: WinINet/1.0"), std::string::npos) << result.data;
}

TEST_F(HttpStreamFaults, ATruncatedTransferResumesToTheWholeFile)
{
    const std::string expected = qvtest::patternBytes(qvtest::kPattern2Size, 2);
    const std::wstring path = L"file/" + qvtest::patternFileName(qvtest::kPattern2Size, 2) +
                              L"?fin=1500000&times=1&key=" + uniqueKey();
    auto stream = get(path);
    ASSERT_EQ(stream->reconnect(), stream.get()) << stream->lastStatus();
    ReadResult first = readAll(*stream, kChunk);
    ASSERT_TRUE(first.failed);
    EXPECT_EQ(first.status, static_cast<uint32_t>(ERROR_INTERNET_CONNECTION_ABORTED));
    EXPECT_EQ(stream->position(), static_cast<int64_t>(first.data.size()));
    // As the source thread does after a failed read: reconnect from the position and go on.
    ASSERT_EQ(stream->reconnect(), stream.get()) << stream->lastStatus();
    EXPECT_EQ(stream->statusCode(), 206u);
    const ReadResult rest = readAll(*stream, kChunk);
    ASSERT_FALSE(rest.failed) << rest.status;
    EXPECT_EQ(first.data.size() + rest.data.size(), expected.size());
    EXPECT_TRUE(first.data + rest.data == expected);
}

TEST_F(HttpStreamFaults, AResetTransferResumesToTheWholeFile)
{
    const std::string expected = qvtest::patternBytes(qvtest::kPattern1Size, 1);
    const std::wstring path = L"file/" + qvtest::patternFileName(qvtest::kPattern1Size, 1) +
                              L"?rst=300000&times=1&key=" + uniqueKey();
    auto stream = get(path);
    // As the source thread does: reconnect from the position after every failure (a few times).
    std::string received;
    int failures = 0;
    for (int attempt = 0; attempt < 4; ++attempt) {
        if (!stream->reconnect()) {
            ++failures;
            continue;
        }
        const ReadResult part = readAll(*stream, kChunk);
        received += part.data;
        EXPECT_EQ(stream->position(), static_cast<int64_t>(received.size()));
        if (!part.failed)
            break;
        ++failures;
    }
    EXPECT_EQ(failures, 1);
    EXPECT_EQ(received.size(), expected.size());
    EXPECT_TRUE(received == expected);
}

} // namespace
