// The code tables and mappings as clients see them through QvDLM.dll.
#include <gtest/gtest.h>

#include <string>

#include "QvDLM.h"

using namespace qvdlm;

TEST(ErrorCodes, BitsTwentyFourToTwentySevenMarkErrors)
{
    EXPECT_TRUE(Download::isErrorCode(0x25000007));
    EXPECT_TRUE(Download::isErrorCode(0x0F000000));
    EXPECT_TRUE(Download::isErrorCode(0x28000011));
    EXPECT_FALSE(Download::isErrorCode(0x20000007));
    EXPECT_FALSE(Download::isErrorCode(0xF0FFFFFF));
    EXPECT_FALSE(Download::isErrorCode(0));
}

TEST(MessageTexts, EveryNumberHasItsTextAndGapsHaveNone)
{
    EXPECT_STREQ(messageText(1000), L"open failure");
    EXPECT_STREQ(messageText(1007), L"server not response");
    EXPECT_STREQ(messageText(1016), L"proxy need authentication");
    EXPECT_STREQ(messageText(1021), L"Akamai download fall back to Http download");
    EXPECT_EQ(messageText(1018), nullptr);
    EXPECT_EQ(messageText(1019), nullptr);
    EXPECT_EQ(messageText(999), nullptr);
    EXPECT_EQ(messageText(1022), nullptr);
    int withText = 0;
    for (uint32_t id = 1000; id <= 1021; ++id)
        withText += messageText(id) != nullptr;
    EXPECT_EQ(withText, 20);
}

TEST(StateNames, CoverEveryStateIncludingCompleted)
{
    EXPECT_STREQ(stateName(0), L"download completed");
    EXPECT_STREQ(stateName(state::Pending), L"download pending");
    EXPECT_STREQ(stateName(state::Completing), L"download completing");
    EXPECT_STREQ(stateName(state::Removed), L"download removed");
    EXPECT_EQ(stateName(0x20000009), nullptr);
    EXPECT_EQ(stateName(1), nullptr);
}

TEST(StatusMessages, MapStatusCodesWithTheStateExceptions)
{
    EXPECT_EQ(messageForStatus(0), 0u);
    EXPECT_EQ(messageForStatus(status::OpenFailure), 1000u);
    EXPECT_EQ(messageForStatus(status::ServerNotResponding), 1007u);
    EXPECT_EQ(messageForStatus(status::NetworkDisconnected), 1004u);
    EXPECT_EQ(messageForStatus(status::NetworkError), 1008u);
    EXPECT_EQ(messageForStatus(status::OutOfDiskSpace), 1013u);
    EXPECT_EQ(messageForStatus(status::ProxyAuthRequired), 1016u);
    EXPECT_EQ(messageForStatus(status::RestoreFailed), 1017u);
    EXPECT_EQ(messageForStatus(0x25000006), 1020u); // never set by the library
    EXPECT_EQ(messageForStatus(status::SetupFailed), 1020u);

    // "network reconnecting" is no error while paused, but "network connecting" once aborted.
    EXPECT_EQ(messageForStateStatus(state::Paused, status::NetworkReconnecting), 0u);
    EXPECT_EQ(messageForStateStatus(state::Aborted, status::NetworkReconnecting), 1005u);
    EXPECT_EQ(messageForStateStatus(state::Paused, status::NetworkError), 1008u);
}

TEST(StatusMessages, ManagerReactionsToReportedMessages)
{
    EXPECT_EQ(statusForMessage(1004), status::NetworkDisconnected);
    EXPECT_EQ(statusForMessage(1005), status::NetworkReconnecting);
    EXPECT_EQ(statusForMessage(1007), status::ServerNotResponding);
    EXPECT_EQ(statusForMessage(1008), status::NetworkError);
    EXPECT_EQ(statusForMessage(1017), status::RestoreFailed);
    EXPECT_EQ(statusForMessage(1006), 0u);
    EXPECT_EQ(statusForMessage(1009), 0u);
}

TEST(ValidationResults, MapToStatusMessageAndEventKind)
{
    struct Case {
        uint32_t result, status, message, kind;
        bool ok;
    };
    const Case cases[] = {
        {2, status::OpenFailure, 1000, 2, true},
        {17, status::ServerNotResponding, 1007, 2, true},
        {18, status::ServerNotResponding, 1004, 2, true}, // deliberate pairing
        {19, status::NetworkError, 1008, 2, true},
        {20, status::ProxyAuthRequired, 1016, 6, false},
        {4, status::GeneralError, 1020, 2, true}, // 403 is not listed
        {99, status::GeneralError, 1020, 2, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.result);
        const ValidationOutcome o = validationOutcome(c.result);
        EXPECT_EQ(o.status, c.status);
        EXPECT_EQ(o.message, c.message);
        EXPECT_EQ(o.eventKind, c.kind);
        EXPECT_EQ(o.result, c.ok);
    }
    EXPECT_EQ(validationOutcome(0).status, 0u);
    EXPECT_TRUE(validationOutcome(0).result);
}

TEST(Factory, DestroyIgnoresNull)
{
    QvDLM::destroy(static_cast<Download*>(nullptr));
    QvDLM::destroy(static_cast<DownloadMgr*>(nullptr));
    QvDLM::destroy(static_cast<DownloadRequest*>(nullptr));
    QvDLM::destroy(static_cast<Log*>(nullptr));
    SUCCEED();
}

TEST(EventValues, TextPointersAreToldByBitsSixteenToThirtyOne)
{
    EXPECT_FALSE(eventValueIsText(1009));
    EXPECT_FALSE(eventValueIsText(0xFFFF));
    EXPECT_TRUE(eventValueIsText(0x10000));
    // Only bits 16..31 count: a pointer whose low 32 bits are small reads as a message number.
    EXPECT_FALSE(eventValueIsText(0x0000000100000400ull));
}
