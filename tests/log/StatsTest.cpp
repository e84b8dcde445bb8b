// Transfer statistics driven by a hand-set tick count and a download whose counters the test sets.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <windows.h>

#include "log/StatsImp.h"
#include "support/FakeRequest.h"
#include "support/MockDownload.h"

using ::testing::Return;
using ::testing::ReturnPointee;

namespace {

DWORD g_ticks = 0;
DWORD WINAPI ticks() { return g_ticks; }

class StatsTest : public ::testing::Test {
protected:
    StatsTest()
    {
        request_.setCompressedSize(100000000), request_.setUncompressedSize(250000000);
        ON_CALL(download_, getRequest()).WillByDefault(Return(&request_));
        ON_CALL(download_, getDownloadedSize()).WillByDefault(ReturnPointee(&downloaded_));
        ON_CALL(download_, getExtractedSize()).WillByDefault(ReturnPointee(&extracted_));
        at(1000);
        stats_.start();
    }
    // Moves the clock to t ms and the counters to what a steady transfer started at 1000 has reached.
    void at(DWORD t)
    {
        g_ticks = t;
        extracted_ = (downloaded_ = static_cast<uint64_t>(t - 1000) * rate_ / 1000) / 2;
    }
    // Samples once a second from 2000 to `to`; answers the last estimate.
    int64_t sampleUntil(DWORD to)
    {
        int64_t last = 0;
        for (DWORD t = 2000; t <= to; t += 1000)
            at(t), last = stats_.getRemainingSeconds();
        return last;
    }

    FakeRequest request_;
    ::testing::NiceMock<MockDownload> download_;
    StatsImp stats_{&download_, &ticks};
    uint64_t downloaded_ = 0, extracted_ = 0, rate_ = 1000000; // bytes per second
};

} // namespace

TEST_F(StatsTest, StartOnceAverageSpeedAndNoNewSampleWithinTheReferenceSamplesMillisecond)
{
    EXPECT_EQ(stats_.getUncompressedSize(), 250000000u);
    request_.setUncompressedSize(1);
    g_ticks = 5000;
    stats_.start(); // a resumed transfer keeps its first start
    EXPECT_EQ(stats_.getUncompressedSize(), 250000000u);
    downloaded_ = 1000000;
    const std::pair<DWORD, uint32_t> averages[] = {{7999, 1000000u * 8 / 6 * 1000}, {1999, 0}, {3000, 4000000000u}, {2000, static_cast<uint32_t>(8000000000ull)}};
    for (const auto& [t, average] : averages) {
        g_ticks = t; // a thousand times the bit rate, cut to 32 bits; 0 within the first second
        EXPECT_EQ(stats_.getAverageSpeed(), average) << t;
    }
    g_ticks = 5000;
    EXPECT_EQ(stats_.getElapsedSeconds(), 4u); // also moves the current sample's time to now
    // Five samples at one tick reach the slot written above as their reference: the rest are skipped.
    EXPECT_CALL(download_, getExtractedSize()).Times(5).WillRepeatedly(Return(0));
    for (int i = 0; i < 10; ++i)
        stats_.getRemainingSeconds();
    ::testing::Mock::VerifyAndClearExpectations(&download_);
    EXPECT_CALL(download_, getExtractedSize()).Times(1).WillRepeatedly(Return(0));
    g_ticks = 5001;
    stats_.getRemainingSeconds();
}

TEST_F(StatsTest, SpeedsAreSmoothedOverNineAndTheEstimateFallsFreely)
{
    EXPECT_EQ(sampleUntil(7000), -1) << "no reference sample six positions back yet";
    EXPECT_EQ(stats_.getDownloadSpeed() + stats_.getExtractSpeed(), 0u);
    at(8000); // 6e6 bytes over 6000 ms: 8e6 bits per second, averaged with eight zeros
    EXPECT_EQ(stats_.getRemainingSeconds(), 93000000ll * 8 / 888888);
    EXPECT_EQ(stats_.getDownloadSpeed(), 888888u);
    EXPECT_EQ(stats_.getExtractSpeed(), 444444u);
    at(9000);
    EXPECT_EQ(stats_.getRemainingSeconds(), 92000000ll * 8 / 987654);
    EXPECT_EQ(stats_.getDownloadSpeed(), (8000000u + 888888u) / 9);
    EXPECT_EQ(stats_.reset(), 0);
    EXPECT_EQ(stats_.getDownloadSpeed() + stats_.getExtractSpeed(), 0u);
    at(10000);
    EXPECT_EQ(stats_.getElapsedSeconds(), 9u) << "reset keeps the start";
    EXPECT_EQ(stats_.getRemainingSeconds(), -1) << "the ring starts over";
}

TEST_F(StatsTest, NoEstimateBeforeFourMebibytesAndAtLeastOneByteLeft)
{
    rate_ = 100000;
    EXPECT_EQ(sampleUntil(8000), -1);
    EXPECT_GT(stats_.getDownloadSpeed(), 0u) << "the speed is known, the amount is too small";
    downloaded_ = 4194304, g_ticks += 1000;
    EXPECT_GT(stats_.getRemainingSeconds(), 0);
    downloaded_ = 200000000, g_ticks += 1000; // more than the package: 1 byte left
    EXPECT_EQ(stats_.getRemainingSeconds(), 0);
}

TEST_F(StatsTest, TheShownTimeRisesOnlyWhenTheEstimateMoreThanDoubles)
{
    int64_t shown = sampleUntil(10000);
    ASSERT_GT(shown, 0);
    const uint64_t stalled = downloaded_; // the transfer stalls: the smoothed speed sinks, the estimate climbs
    int rises = 0, holds = 0;
    for (g_ticks = 11000; g_ticks <= 40000 && stats_.getDownloadSpeed() > 0; g_ticks += 1000) {
        const int64_t before = shown;
        shown = stats_.getRemainingSeconds();
        const uint32_t rate = stats_.getDownloadSpeed();
        const int64_t estimate = rate ? static_cast<int64_t>(100000000 - stalled) * 8 / rate : -1;
        const bool hold = estimate >= before && estimate <= 2 * before;
        EXPECT_EQ(shown, hold ? before : estimate) << g_ticks;
        (hold ? holds : rises) += 1;
    }
    EXPECT_TRUE(holds > 0 && rises > 0) << holds << " " << rises;
}
