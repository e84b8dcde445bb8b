// Transfer statistics driven by a hand-set tick count and a test double of Download.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <windows.h>

#include <cstdint>

#include "log/StatsImp.h"
#include "request/DownloadRequestImp.h"
#include "support/MockDownload.h"

using ::testing::NiceMock;
using ::testing::Return;
using ::testing::ReturnPointee;

namespace {

DWORD g_ticks = 0;
DWORD WINAPI fakeTicks() { return g_ticks; }

class StatsTest : public ::testing::Test {
protected:
    StatsTest()
    {
        g_ticks = 0;
        request_.setCompressedSize(100000000);
        request_.setUncompressedSize(250000000);
        ON_CALL(download_, getRequest()).WillByDefault(Return(&request_));
        ON_CALL(download_, getDownloadedSize()).WillByDefault(ReturnPointee(&downloaded_));
        ON_CALL(download_, getExtractedSize()).WillByDefault(ReturnPointee(&extracted_));
    }

    // Moves the clock to t and the counters to what a steady transfer has reached by then.
    void at(DWORD t)
    {
        g_ticks = t;
        downloaded_ = static_cast<uint64_t>(t - 1000) * downloadRate_ / 1000;
        extracted_ = static_cast<uint64_t>(t - 1000) * extractRate_ / 1000;
    }

    DownloadRequestImp request_;
    NiceMock<MockDownload> download_;
    StatsImp stats_{&download_, &fakeTicks};
    uint64_t downloaded_ = 0;
    uint64_t extracted_ = 0;
    uint64_t downloadRate_ = 1000000; // bytes per second
    uint64_t extractRate_ = 500000;
};

} // namespace

TEST_F(StatsTest, StartCopiesThePackageSizesOnceAndKeepsTheFirstStartTime)
{
    EXPECT_EQ(stats_.getUncompressedSize(), 0u);
    g_ticks = 1000;
    stats_.start();
    EXPECT_EQ(stats_.getUncompressedSize(), 250000000u);
    request_.setUncompressedSize(1);
    g_ticks = 5000;
    stats_.start();
    EXPECT_EQ(stats_.getUncompressedSize(), 250000000u);
    g_ticks = 7999;
    EXPECT_EQ(stats_.getElapsedSeconds(), 6u);
}

TEST_F(StatsTest, ElapsedSecondsSurviveATickCountWrap)
{
    g_ticks = 0xFFFFF000u;
    stats_.start();
    g_ticks = 0x00000F00u;
    EXPECT_EQ(stats_.getElapsedSeconds(), 7u); // 0x1F00 ms
}

TEST_F(StatsTest, CountersComeFromTheOwner)
{
    downloaded_ = 123;
    extracted_ = 45;
    EXPECT_EQ(stats_.getDownloadedSize(), 123u);
    EXPECT_EQ(stats_.getExtractedSize(), 45u);
    StatsImp orphan(nullptr, &fakeTicks);
    orphan.start();
    EXPECT_EQ(orphan.getDownloadedSize(), 0u);
    EXPECT_EQ(orphan.getRemainingSeconds(), -1);
}

TEST_F(StatsTest, AverageSpeedIsZeroInTheFirstSecondThenAThousandTimesTheBitRate)
{
    g_ticks = 1000;
    stats_.start();
    downloaded_ = 1000000;
    g_ticks = 1999;
    EXPECT_EQ(stats_.getAverageSpeed(), 0u);
    g_ticks = 3000;
    EXPECT_EQ(stats_.getAverageSpeed(), 4000000000u); // 8e6 bits / 2 s, times 1000
    g_ticks = 2000;
    // 8e9 does not fit in 32 bits and is cut.
    EXPECT_EQ(stats_.getAverageSpeed(), static_cast<uint32_t>(8000000000ull));
}

TEST_F(StatsTest, SpeedsStayZeroUntilTheRingHoldsAReferenceThenAreSmoothedOverNine)
{
    at(1000);
    stats_.start();
    // Six samples find no reference six positions back yet.
    for (DWORD t = 2000; t <= 7000; t += 1000) {
        at(t);
        EXPECT_EQ(stats_.getRemainingSeconds(), -1) << t;
        EXPECT_EQ(stats_.getDownloadSpeed(), 0u);
        EXPECT_EQ(stats_.getExtractSpeed(), 0u);
    }
    // 6e6 bytes over 6000 ms: 8e6 bits per second, averaged with eight zeros.
    at(8000);
    const int64_t first = stats_.getRemainingSeconds();
    EXPECT_EQ(stats_.getDownloadSpeed(), 888888u);
    EXPECT_EQ(stats_.getExtractSpeed(), 444444u);
    EXPECT_EQ(first, 93000000ll * 8 / 888888); // 837

    at(9000);
    const int64_t second = stats_.getRemainingSeconds();
    EXPECT_EQ(stats_.getDownloadSpeed(), (8000000u + 888888u) / 9);
    EXPECT_EQ(second, 92000000ll * 8 / 987654); // falls freely
    EXPECT_LT(second, first);

    at(10000);
    stats_.getRemainingSeconds();
    EXPECT_EQ(stats_.getDownloadSpeed(), (8000000u + 888888u + 987654u) / 9);
}

TEST_F(StatsTest, NoEstimateBeforeFourMebibytes)
{
    downloadRate_ = 100000;
    at(1000);
    stats_.start();
    for (DWORD t = 2000; t <= 8000; t += 1000) {
        at(t);
        EXPECT_EQ(stats_.getRemainingSeconds(), -1) << t;
    }
    EXPECT_GT(stats_.getDownloadSpeed(), 0u) << "the speed is known, the amount is too small";
    downloaded_ = 4194304;
    g_ticks += 1000;
    EXPECT_GT(stats_.getRemainingSeconds(), 0);
}

TEST_F(StatsTest, RemainingTimeRisesOnlyWhenTheEstimateMoreThanDoubles)
{
    at(1000);
    stats_.start();
    for (DWORD t = 2000; t <= 10000; t += 1000) {
        at(t);
        stats_.getRemainingSeconds();
    }
    int64_t shown = stats_.getRemainingSeconds();
    ASSERT_GT(shown, 0);
    // The transfer stalls: the smoothed speed sinks and the raw estimate climbs.
    const uint64_t stalled = downloaded_;
    int rises = 0;
    int holds = 0;
    for (DWORD t = 11000; t <= 40000; t += 1000) {
        g_ticks = t;
        const int64_t before = shown;
        shown = stats_.getRemainingSeconds();
        const uint32_t rate = stats_.getDownloadSpeed();
        if (rate == 0) {
            EXPECT_EQ(shown, -1);
            break;
        }
        const int64_t estimate = static_cast<int64_t>(100000000 - stalled) * 8 / rate;
        if (estimate >= before && estimate <= 2 * before) {
            EXPECT_EQ(shown, before) << t;
            ++holds;
        } else {
            EXPECT_EQ(shown, estimate) << t;
            ++rises;
        }
    }
    EXPECT_GT(holds, 0);
    EXPECT_GT(rises, 0);
}

TEST_F(StatsTest, HysteresisKeepsRisesUpToTwiceAndFollowsFalls)
{
    int64_t last = 100;
    EXPECT_EQ(StatsImp::holdRemaining(last, 150), 100);
    EXPECT_EQ(last, 100);
    EXPECT_EQ(StatsImp::holdRemaining(last, 200), 100);
    EXPECT_EQ(StatsImp::holdRemaining(last, 201), 201);
    EXPECT_EQ(last, 201);
    EXPECT_EQ(StatsImp::holdRemaining(last, 80), 80);
    EXPECT_EQ(last, 80);
    EXPECT_EQ(StatsImp::holdRemaining(last, 80), 80);
}

TEST_F(StatsTest, LeftBytesAreAtLeastOne)
{
    request_.setCompressedSize(1000);
    at(1000);
    stats_.start();
    for (DWORD t = 2000; t <= 8000; t += 1000) {
        at(t);
        stats_.getRemainingSeconds();
    }
    EXPECT_EQ(stats_.getRemainingSeconds(), 0) << "1 byte left * 8 / rate";
}

TEST_F(StatsTest, NoNewSampleWithinTheReferenceSamplesMillisecond)
{
    g_ticks = 1000;
    stats_.start();
    g_ticks = 5000;
    // Six samples at one tick fill the positions up to the reference; from then on the reference is now.
    EXPECT_CALL(download_, getExtractedSize()).Times(6).WillRepeatedly(Return(0));
    for (int i = 0; i < 10; ++i)
        stats_.getRemainingSeconds();
    ::testing::Mock::VerifyAndClearExpectations(&download_);
    EXPECT_CALL(download_, getExtractedSize()).Times(1).WillRepeatedly(Return(0));
    g_ticks = 5001;
    stats_.getRemainingSeconds();
}

TEST_F(StatsTest, ElapsedSecondsMovesTheCurrentSampleTime)
{
    // Not started: the elapsed time counts from tick 0, and the current slot gets time 3000.
    g_ticks = 3000;
    EXPECT_EQ(stats_.getElapsedSeconds(), 3u);
    // Five samples at 3000 reach the slot written above as their reference: the sixth is skipped.
    EXPECT_CALL(download_, getExtractedSize()).Times(5).WillRepeatedly(Return(0));
    for (int i = 0; i < 8; ++i)
        stats_.getRemainingSeconds();
}

TEST_F(StatsTest, ResetClearsTheRingsButNotTheStart)
{
    at(1000);
    stats_.start();
    for (DWORD t = 2000; t <= 9000; t += 1000) {
        at(t);
        stats_.getRemainingSeconds();
    }
    ASSERT_GT(stats_.getDownloadSpeed(), 0u);
    EXPECT_EQ(stats_.reset(), 0);
    EXPECT_EQ(stats_.getDownloadSpeed(), 0u);
    EXPECT_EQ(stats_.getExtractSpeed(), 0u);
    at(10000);
    EXPECT_EQ(stats_.getElapsedSeconds(), 9u);
    EXPECT_EQ(stats_.getRemainingSeconds(), -1) << "the ring starts over";
}
