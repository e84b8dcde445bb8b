// validateUrl through QvDLM.dll's export, against nginx and the fault server: its result codes, the
// size it records in the request and the one message it publishes for each failure.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "EventPublisher.h"
#include "QvDLMCodes.h"
#include "UrlValidation.h"
#include "support/MockDownloadRequest.h"
#include "support/TestServers.h"
#include "support/TestSupport.h"

using ::testing::_;
using ::testing::NiceMock;
using ::testing::Return;

namespace {

// Collects the text events that carry no download.
class TextCollector : public EventSubscriber {
public:
    TextCollector() { EventPublisher::getInstance()->subscribe(this); }
    ~TextCollector() { EventPublisher::getInstance()->unsubscribe(this); }
    TextCollector(const TextCollector&) = delete;
    TextCollector& operator=(const TextCollector&) = delete;

    void notify(const EventRecord* record) override
    {
        if (record->kind == qvdlm::event::Information && record->source == nullptr &&
            qvdlm::eventValueIsText(record->value))
            texts.emplace_back(reinterpret_cast<const wchar_t*>(record->value));
        else
            others.push_back(*record);
    }

    std::vector<std::wstring> texts;
    std::vector<EventRecord> others;
};

class UrlValidation : public ::testing::Test {
protected:
    // Validates url with the given token string; records what the request was told.
    unsigned long validate(const std::wstring& url, const wchar_t* token = L"SESSION_ID=s1")
    {
        url_ = url;
        ON_CALL(request_, getUrl(_)).WillByDefault(Return(url_.c_str()));
        ON_CALL(request_, getQuery()).WillByDefault(Return(token));
        EXPECT_CALL(request_, getUrl(false)).Times(::testing::AtLeast(1));
        ON_CALL(request_, setContentLength(_)).WillByDefault([this](int64_t length) {
            ++sizeCalls_;
            size_ = length;
        });
        return validateUrl(&request_);
    }

    NiceMock<MockDownloadRequest> request_;
    TextCollector events_;
    std::wstring url_;
    int sizeCalls_ = 0;
    int64_t size_ = -7;
};

TEST_F(UrlValidation, AServedFileIsValidAndItsSizeRecorded)
{
    const std::wstring url = qvtest::nginxUrl(L"hello.txt");
    EXPECT_EQ(validate(url), qvdlm::validation::Ok);
    EXPECT_EQ(sizeCalls_, 1);
    EXPECT_EQ(size_, 13);
    ASSERT_EQ(events_.texts.size(), 1u);
    EXPECT_EQ(events_.texts[0], L"validateUrl: Content length is 13\t" + url + L" SESSION_ID=s1");
    EXPECT_TRUE(events_.others.empty());
}

TEST_F(UrlValidation, ABigFileReportsItsWholeSize)
{
    EXPECT_EQ(validate(qvtest::nginxUrl(qvtest::patternFileName(qvtest::kPattern2Size, 2)), nullptr),
              qvdlm::validation::Ok);
    EXPECT_EQ(size_, static_cast<int64_t>(qvtest::kPattern2Size));
    ASSERT_EQ(events_.texts.size(), 1u);
    // A request without a token string prints it as empty.
    EXPECT_EQ(events_.texts[0].substr(events_.texts[0].size() - 5), L".bin ");
}

TEST_F(UrlValidation, AnEmptyFileIsNotUsable)
{
    const std::wstring url = qvtest::nginxUrl(L"empty.bin");
    EXPECT_EQ(validate(url), qvdlm::validation::OpenFailure);
    EXPECT_EQ(sizeCalls_, 1);
    EXPECT_EQ(size_, 0);
    ASSERT_EQ(events_.texts.size(), 1u);
    EXPECT_EQ(events_.texts[0], L"validateUrl: Content length is 0\t" + url + L" SESSION_ID=s1");
}

TEST_F(UrlValidation, ContentLengthZeroFromTheFaultServer)
{
    EXPECT_EQ(validate(qvtest::faultUrl(L"empty")), qvdlm::validation::OpenFailure);
    ASSERT_EQ(events_.texts.size(), 1u);
    EXPECT_EQ(events_.texts[0].rfind(L"validateUrl: Content length is 0\t", 0), 0u);
}

TEST_F(UrlValidation, ForbiddenIsFour)
{
    const std::wstring url = qvtest::faultUrl(L"status/403");
    EXPECT_EQ(validate(url), qvdlm::validation::Forbidden);
    EXPECT_EQ(sizeCalls_, 1);
    EXPECT_EQ(size_, 0);
    ASSERT_EQ(events_.texts.size(), 1u);
    EXPECT_EQ(events_.texts[0], L"validateUrl: HTTP status: 403\t" + url + L" SESSION_ID=s1");
}

TEST_F(UrlValidation, NotFoundAndServerErrorAreTwo)
{
    for (int code : {404, 500}) {
        events_.texts.clear();
        const std::wstring url = qvtest::faultUrl(L"status/" + std::to_wstring(code));
        EXPECT_EQ(validate(url), qvdlm::validation::OpenFailure) << code;
        EXPECT_EQ(size_, 0);
        ASSERT_EQ(events_.texts.size(), 1u);
        EXPECT_EQ(events_.texts[0], L"validateUrl: HTTP status: " + std::to_wstring(code) + L"\t" + url + L" SESSION_ID=s1");
    }
}

TEST_F(UrlValidation, AMissingFileOnNginxIsTwo)
{
    EXPECT_EQ(validate(qvtest::nginxUrl(L"missing.bin")), qvdlm::validation::OpenFailure);
    ASSERT_EQ(events_.texts.size(), 1u);
    EXPECT_EQ(events_.texts[0].rfind(L"validateUrl: HTTP status: 404\t", 0), 0u);
}

TEST_F(UrlValidation, ProxyAuthenticationRequiredIsTwentyWithoutAMessage)
{
    EXPECT_EQ(validate(qvtest::faultUrl(L"status/407")), qvdlm::validation::ProxyAuthRequired);
    EXPECT_EQ(sizeCalls_, 1);
    EXPECT_EQ(size_, 0);
    EXPECT_TRUE(events_.texts.empty());
}

TEST_F(UrlValidation, AnUntrustedHostIsRefusedBeforeAnyRequest)
{
    // The loopback address written as digits is not on the trusted list, even with a server behind it.
    const std::wstring url = L"http://127.0.0.1:" + std::to_wstring(qvtest::port(qvtest::kNginxPortOffset)) + L"/hello.txt";
    EXPECT_EQ(validate(url), qvdlm::validation::OpenFailure);
    EXPECT_EQ(sizeCalls_, 0);
    ASSERT_EQ(events_.texts.size(), 1u);
    EXPECT_EQ(events_.texts[0], L"validateUrl: validateUrlDomain failed for URL: " + url);
}

TEST_F(UrlValidation, AVendorUrlWithoutSlashIsRefused)
{
    EXPECT_EQ(validate(L"https://www.quorvel.com"), qvdlm::validation::OpenFailure);
    EXPECT_EQ(sizeCalls_, 0);
    ASSERT_EQ(events_.texts.size(), 1u);
    EXPECT_EQ(events_.texts[0], L"validateUrl: validateUrlDomain failed for URL: https://www.quorvel.com");
}

TEST_F(UrlValidation, TooShortAUrlIsRefusedWithoutAnException)
{
    EXPECT_EQ(validate(L"a"), qvdlm::validation::OpenFailure);
    EXPECT_EQ(validate(L""), qvdlm::validation::OpenFailure);
    EXPECT_EQ(sizeCalls_, 0);
    ASSERT_EQ(events_.texts.size(), 2u);
    EXPECT_EQ(events_.texts[0], L"validateUrl: validateUrlDomain failed for URL: a");
}

TEST_F(UrlValidation, ANullUrlIsRefused)
{
    ON_CALL(request_, getUrl(_)).WillByDefault(Return(nullptr));
    EXPECT_EQ(validateUrl(&request_), qvdlm::validation::OpenFailure);
    EXPECT_EQ(validateUrl(nullptr), qvdlm::validation::OpenFailure);
}

TEST_F(UrlValidation, AVeryLongUrlIsCutInItsMessage)
{
    const std::wstring url = L"http://example.org/" + std::wstring(5000, L'x');
    EXPECT_EQ(validate(url), qvdlm::validation::OpenFailure);
    ASSERT_EQ(events_.texts.size(), 1u);
    EXPECT_EQ(events_.texts[0].size(), 1023u);
    EXPECT_EQ(events_.texts[0].rfind(L"validateUrl: validateUrlDomain failed for URL: http://example.org/xxx", 0), 0u);
}

TEST_F(UrlValidation, AClosedPortIsNotConnected)
{
    const std::wstring url = L"http://localhost:" + std::to_wstring(qvtest::port(19)) + L"/a.bin";
    const unsigned long code = validate(url);
    EXPECT_EQ(sizeCalls_, 1);
    EXPECT_EQ(size_, 0);
    ASSERT_EQ(events_.texts.size(), 1u);
    const std::wstring prefix = L"validateUrl: HTTP stream not connected. URL: " + url + L". status: ";
    ASSERT_EQ(events_.texts[0].rfind(prefix, 0), 0u) << events_.texts[0];
    const unsigned long status = std::wcstoul(events_.texts[0].c_str() + prefix.size(), nullptr, 10);
    // Windows reports a refused connection as 12029 (17); Wine as 2250 (19).
    EXPECT_EQ(code, status == 12029 ? qvdlm::validation::ServerNotResponding : qvdlm::validation::NetworkError);
}

TEST_F(UrlValidation, NoAnswerAtAllIsTwo)
{
    EXPECT_EQ(validate(qvtest::faultUrl(L"close")), qvdlm::validation::OpenFailure);
    EXPECT_EQ(size_, 0);
    ASSERT_EQ(events_.texts.size(), 1u);
    // Wine sends the HEAD and reads status 0; Windows fails the send.
    const std::wstring& text = events_.texts[0];
    EXPECT_TRUE(text.rfind(L"validateUrl: HTTP status: 0\t", 0) == 0 ||
                text.rfind(L"validateUrl: HttpOpenRequest(HAED) failed\t", 0) == 0)
        << text;
}

TEST_F(UrlValidation, AHeadRequestThatCannotBeMadeIsTwo)
{
    // Trusted, reachable, but too long a path to be requested at all.
    const std::wstring url = qvtest::nginxUrl(std::wstring(3000, L'p'));
    EXPECT_EQ(validate(url, L"q=1"), qvdlm::validation::OpenFailure);
    EXPECT_EQ(size_, 0);
    ASSERT_EQ(events_.texts.size(), 1u);
    EXPECT_EQ(events_.texts[0], L"validateUrl: HttpOpenRequest(HAED) failed\t" + url + L" q=1")
        << events_.texts[0].substr(0, 100);
}

} // namespace
