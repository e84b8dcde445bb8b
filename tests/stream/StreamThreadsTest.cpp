// The three stage threads over fake stages and a fake job: data flow, block changes, checkpoints,
// stops, failures, and the source's retry cycle.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "PipelineFakes.h"
#include "stream/StreamLink.h"

using fakes::CollectingSink;
using fakes::EventRecorder;
using fakes::FakeJob;
using fakes::FakeRequest;
using fakes::FakeServices;
using fakes::InvertingMiddle;
using fakes::linkSpec;
using fakes::ReadStep;
using fakes::resourceBytes;
using fakes::ScriptedSource;
using fakes::StageThread;
namespace state = qvdlm::state;
namespace msg = qvdlm::msg;
namespace event = qvdlm::event;

namespace {

using fakes::FakeControlThread;
using fakes::kTimedOut;
using fakes::Rig;
using fakes::ScopedEnv;
using fakes::abortOnErrorEvents;

std::string inverted(std::string bytes)
{
    for (auto& c : bytes)
        c = static_cast<char>(~static_cast<unsigned char>(c));
    return bytes;
}

} // namespace

TEST(PlainPipeline, EveryByteArrivesAndBothThreadsReportTheEnd)
{
    Rig rig;
    rig.plain();
    rig.script({64, 10, 64, 1, 33});
    const auto codes = rig.run();
    EXPECT_EQ(std::vector<uint32_t>({0u, 0u}), codes);
    EXPECT_EQ(resourceBytes(rig.source->url(), 0, 172), rig.sink->bytes);
    EXPECT_EQ(172, rig.job.bytes.load());
    EXPECT_EQ(172u, rig.job.total.load());
    EXPECT_EQ(0u, rig.request.getBlockDownloadedSize());

    EXPECT_EQ(1, rig.events.count(event::Information, msg::DownloadStarted));
    EXPECT_EQ(1, rig.events.count(event::Information, msg::UnpackageStarted));
    EXPECT_EQ(1, rig.events.count(event::Information, msg::DownloadCompleted));
    EXPECT_EQ(1, rig.events.count(event::Information, msg::UnpackageCompleted));
    EXPECT_EQ(1, rig.events.countText(L"readerStreamThread exited (0)"));
    EXPECT_EQ(1, rig.events.countText(L"writerStreamThread exited (0)"));
}

TEST(PlainPipeline, SequenceNumbersDriveTheCheckpointsOfBothEnds)
{
    Rig rig;
    rig.plain();
    rig.script({64, 64, 64, 64});
    ASSERT_EQ(std::vector<uint32_t>({0u, 0u}), rig.run());

    // Five slots (four with data, one ending the block): the source reports 1..4 before filling
    // the next one, the sink reports each sequence once it sees the next.
    std::vector<uint32_t> fromSource;
    std::vector<uint32_t> fromSink;
    for (const auto& c : rig.job.checkpoints()) {
        if (c.stage == L"Http") {
            EXPECT_TRUE(c.fromReader && !c.fromWriter);
            EXPECT_EQ(rig.currentSource(), c.stream);
            fromSource.push_back(c.sequence);
        } else {
            EXPECT_EQ(L"File", c.stage);
            EXPECT_TRUE(!c.fromReader && c.fromWriter);
            EXPECT_EQ(rig.sink, c.stream);
            fromSink.push_back(c.sequence);
        }
    }
    EXPECT_EQ(std::vector<uint32_t>({1, 2, 3, 4}), fromSource);
    EXPECT_EQ(std::vector<uint32_t>({1, 2, 3}), fromSink);
}

TEST(PlainPipeline, SequencesContinueAfterTheRestoredCheckpoint)
{
    Rig rig;
    rig.request.checkpointId = 7;
    rig.plain();
    rig.script({64, 64, 64});
    ASSERT_EQ(std::vector<uint32_t>({0u, 0u}), rig.run());
    auto restored = rig.job.restored();
    std::sort(restored.begin(), restored.end());
    EXPECT_EQ(std::vector<std::wstring>({L"File", L"Http"}), restored);
    std::vector<uint32_t> fromSource;
    std::vector<uint32_t> fromSink;
    for (const auto& c : rig.job.checkpoints())
        (c.stage == L"Http" ? fromSource : fromSink).push_back(c.sequence);
    // Never the identifier of the checkpoint being resumed, nor anything below it.
    EXPECT_EQ(std::vector<uint32_t>({8, 9, 10}), fromSource);
    EXPECT_EQ(std::vector<uint32_t>({8, 9}), fromSink);
}

TEST(PlainPipeline, SecondBlockGoesToTheJobsCurrentSink)
{
    Rig rig;
    rig.request.blockUrls = {L"http://localhost/file_001", L"http://localhost/second_002"};
    rig.request.blockLengths = {0, 100};
    rig.request.finished = false;
    rig.plain();
    rig.script({64, 36});
    auto* second = new CollectingSink;
    rig.job.sink = second;
    rig.services.onCreate = [](ScriptedSource& s) { s.script = {{64, 0}, {36, 0}}; };
    const std::wstring firstUrl = rig.source->url();

    const auto codes = rig.run();
    EXPECT_EQ(std::vector<uint32_t>({0u, 0u}), codes);
    EXPECT_EQ(resourceBytes(firstUrl, 0, 100), rig.sink->bytes);
    EXPECT_EQ(resourceBytes(L"http://localhost/second_002", 0, 100), second->bytes);
    ASSERT_EQ(1u, rig.services.created().size());
    EXPECT_EQ(L"http://localhost/second_002", rig.services.created()[0].url);
    EXPECT_EQ(0, rig.services.created()[0].position);
    EXPECT_EQ(1, rig.services.reconnectCalls.load());
    EXPECT_EQ(1, rig.job.validations());
    // The first block's source is gone; the thread data holds the current one.
    EXPECT_EQ(1, rig.services.alive.load());
    EXPECT_EQ(L"http://localhost/second_002", static_cast<ScriptedSource*>(rig.currentSource())->url());
    EXPECT_EQ(200u, rig.job.total.load());
    delete second;
}

TEST(PlainPipeline, RefusedValidationAtABlockChangeEndsTheSourceAndTheSink)
{
    Rig rig;
    rig.request.blockUrls = {L"http://localhost/a_001", L"http://localhost/b_002"};
    rig.request.blockLengths = {0, 10};
    rig.request.finished = false;
    rig.plain();
    rig.script({20});
    rig.job.validationCodes = {qvdlm::validation::ProxyAuthRequired};
    const auto codes = rig.run();
    EXPECT_EQ(qvdlm::status::ProxyAuthRequired, codes[0]);
    EXPECT_NE(kTimedOut, codes[1]);
    EXPECT_TRUE(rig.services.created().empty());
    EXPECT_EQ(resourceBytes(rig.source->url(), 0, 20), rig.sink->bytes);
}

TEST(PlainPipeline, TruncatedBodyIsNotTakenForTheEndOfTheBlock)
{
    Rig rig;
    rig.plain();
    rig.source->script = {{60, 0}};
    rig.request.contentLength = 100;
    // The server closed early; the reconnect resumes from the position reached.
    rig.services.onReconnect = [](ScriptedSource& s) { s.script = {{40, 0}}; };
    ASSERT_EQ(std::vector<uint32_t>({0u, 0u}), rig.run());
    EXPECT_EQ(resourceBytes(rig.source->url(), 0, 100), rig.sink->bytes);
    EXPECT_EQ(1, rig.events.count(event::StatusMessage, msg::NetworkConnecting));
    EXPECT_EQ(1, rig.events.count(event::StatusMessage, msg::NetworkConnected));
}

TEST(PackagePipeline, BlocksFlowThroughTheMiddleStageWithZeroLengthSlotsPassedOn)
{
    Rig rig;
    rig.request.blockUrls = {L"http://localhost/p_001.tar.lzma2", L"http://localhost/p_002.tar.lzma2"};
    rig.request.blockLengths = {0, 70};
    rig.package();
    rig.script({64, 30});
    rig.services.onCreate = [](ScriptedSource& s) { s.script = {{64, 0}, {6, 0}}; };
    const std::wstring firstUrl = rig.source->url();

    const auto codes = rig.run();
    EXPECT_EQ(std::vector<uint32_t>({0u, 0u, 0u}), codes);
    const std::string expected =
        inverted(resourceBytes(firstUrl, 0, 94) + resourceBytes(L"http://localhost/p_002.tar.lzma2", 0, 70));
    EXPECT_EQ(expected, rig.sink->bytes);
    // The end of the first block reached the middle stage as an empty slot that did not end it.
    int empty = 0;
    for (uint32_t n : rig.middle->counts)
        empty += n == 0 ? 1 : 0;
    EXPECT_EQ(1, empty);
    EXPECT_EQ(1, rig.events.count(event::Information, msg::DecompressStarted));
    EXPECT_EQ(1, rig.events.count(event::Information, msg::DecompressCompleted));
    EXPECT_EQ(1, rig.events.count(event::Information, msg::UnpackageCompleted));
    EXPECT_EQ(1, rig.events.countText(L"readerWriterStreamThread exited (0)"));
}

TEST(PackagePipeline, MiddleStageCheckpointsWithItsWriterSide)
{
    Rig rig;
    rig.package();
    rig.script({64, 64, 64});
    ASSERT_EQ(std::vector<uint32_t>({0u, 0u, 0u}), rig.run());
    std::vector<uint32_t> fromMiddle;
    std::vector<uint32_t> fromSink;
    for (const auto& c : rig.job.checkpoints()) {
        if (c.stage == L"Lzma") {
            EXPECT_EQ(rig.middle, c.stream);
            EXPECT_FALSE(c.fromReader || c.fromWriter);
            fromMiddle.push_back(c.sequence);
        } else if (c.stage == L"xTar") {
            fromSink.push_back(c.sequence);
        }
    }
    EXPECT_EQ(std::vector<uint32_t>({1, 2}), fromMiddle);
    // The sink sees output slots carrying their input's sequence.
    EXPECT_EQ(std::vector<uint32_t>({1, 2}), fromSink);
}

TEST(StopWhileWaiting, SinkLeavesItsWaitForDataOnTheStopMessage)
{
    for (UINT stop : {static_cast<UINT>(qvdlm::command::AbortDiscard), static_cast<UINT>(qvdlm::command::StopKeep)}) {
        Rig rig;
        rig.plain();
        StageThread sink(&writerStreamThread, rig.targets[1].get());
        EXPECT_FALSE(sink.finished(100)); // nothing will ever be produced
        rig.job.state = state::Exiting;
        rig.job.stop = true;
        ASSERT_TRUE(sink.post(stop));
        EXPECT_EQ(state::Exiting, sink.join());
        EXPECT_EQ(1, rig.events.countText(L"writerStreamThread exited (536870917)"));
    }
}

TEST(StopWhileWaiting, MiddleLeavesItsWaitForInputOnTheStopMessage)
{
    Rig rig;
    rig.package();
    StageThread middle(&readerWriterStreamThread, rig.targets[1].get());
    EXPECT_FALSE(middle.finished(100));
    rig.job.state = state::Exiting;
    rig.job.stop = true;
    ASSERT_TRUE(middle.post(qvdlm::command::StopKeep));
    EXPECT_EQ(state::Exiting, middle.join());
    // Its own consumer learns that nothing more comes.
    StageThread sink(&writerStreamThread, rig.targets[2].get());
    EXPECT_NE(kTimedOut, sink.join());
}

TEST(StopWhileWaiting, SourceLeavesItsWaitForAFreeSlotOnTheStopMessage)
{
    Rig rig;
    rig.plain();
    for (int i = 0; i < 10; ++i)
        rig.source->script.push_back({64, 0});
    rig.request.contentLength = 640;
    StageThread source([&] { return runReaderStream(rig.targets[0].get(), rig.services); });
    // Without a consumer only the slot the source freed itself can be filled; then it waits.
    for (int i = 0; i < 5000 && rig.source->reads.load() < 1; ++i)
        Sleep(1);
    EXPECT_FALSE(source.finished(100));
    rig.job.state = state::Exiting;
    rig.job.stop = true;
    ASSERT_TRUE(source.post(qvdlm::command::AbortDiscard));
    EXPECT_EQ(state::Exiting, source.join());
    EXPECT_EQ(1, rig.source->reads.load());
}

TEST(Failures, SinkWriteFailureEndsTheSinkAndReleasesTheSource)
{
    Rig rig;
    rig.plain();
    for (int i = 0; i < 20; ++i)
        rig.source->script.push_back({64, 0});
    rig.request.contentLength = 20 * 64;
    rig.sink->failAtCall = 1;
    const auto codes = rig.run();
    EXPECT_EQ(0x28000006u, codes[1]);
    EXPECT_NE(kTimedOut, codes[0]);
    EXPECT_EQ(1, rig.events.count(event::Error, msg::UnpackageFailed));
    EXPECT_EQ(64, rig.job.bytes.load());
}

TEST(Failures, ShortSinkWriteCountsAsAFailure)
{
    Rig rig;
    rig.plain();
    rig.script({64, 64});
    rig.sink->failAtCall = 0;
    rig.sink->failResult = 3;
    const auto codes = rig.run();
    EXPECT_EQ(0x28000006u, codes[1]);
    EXPECT_EQ(1, rig.events.count(event::Error, msg::UnpackageFailed));
    EXPECT_EQ(3, rig.job.bytes.load());
}

TEST(Failures, MiddleWriteFailureFailsTheJobAndEndsEveryThread)
{
    Rig rig;
    rig.package();
    for (int i = 0; i < 20; ++i)
        rig.source->script.push_back({64, 0});
    rig.request.contentLength = 20 * 64;
    rig.middle->failWriteAtCall = 1;
    const auto codes = rig.run();
    EXPECT_EQ(1u, codes[1]);
    EXPECT_NE(kTimedOut, codes[0]);
    EXPECT_NE(kTimedOut, codes[2]);
    EXPECT_EQ(1, rig.events.countText(
                     L"readerWriterStreamThread: writeBytes failed. nBytesWritten = 0. stream writer last status: 1"));
    EXPECT_EQ(1, rig.events.count(event::Error, msg::DecompressFailed));
    const auto statuses = rig.job.statuses();
    EXPECT_NE(statuses.end(), std::find(statuses.begin(), statuses.end(), qvdlm::status::GeneralError));
    EXPECT_EQ(inverted(resourceBytes(rig.source->url(), 0, 64)), rig.sink->bytes);
}

TEST(Failures, MiddleReadFailureTakesTheReaderStatus)
{
    Rig rig;
    rig.package();
    rig.script({64, 64});
    rig.middle->readFailure = 0x77;
    const auto codes = rig.run();
    EXPECT_EQ(0x77u, codes[1]);
    EXPECT_NE(kTimedOut, codes[0]);
    EXPECT_NE(kTimedOut, codes[2]);
    EXPECT_EQ(1, rig.events.countText(L"readerWriterStreamThread: readBytes failed. stream writer last status: 0"));
    EXPECT_EQ(1, rig.events.count(event::Error, msg::DecompressFailed));
    EXPECT_TRUE(rig.sink->bytes.empty());
}

TEST(Failures, MiddleStreamCutShortFailsInsteadOfCompleting)
{
    Rig rig;
    rig.package();
    rig.script({64, 64});
    rig.middle->wholeAtEnd = false;
    const auto codes = rig.run();
    EXPECT_EQ(6u, codes[1]);
    EXPECT_EQ(0u, codes[0]);
    EXPECT_NE(kTimedOut, codes[2]);
    EXPECT_EQ(1, rig.events.count(event::Error, msg::DecompressFailed));
    EXPECT_EQ(0, rig.events.count(event::Information, msg::DecompressCompleted));
    EXPECT_EQ(0, rig.events.count(event::Information, msg::UnpackageCompleted));
    EXPECT_EQ(1, rig.events.countText(L"readerWriterStreamThread: readBytes failed. stream writer last status: 6"));
    // Everything decoded before the end still reached the sink.
    EXPECT_EQ(inverted(resourceBytes(rig.source->url(), 0, 128)), rig.sink->bytes);
}

TEST(Failures, SinkLeftInsideAnEntryAtTheEndFails)
{
    Rig rig;
    rig.package();
    rig.script({64});
    rig.sink->wholeAtEnd = false;
    const auto codes = rig.run();
    EXPECT_EQ(0x28000002u, codes[2]);
    EXPECT_EQ(1, rig.events.count(event::Error, msg::UnpackageFailed));
    EXPECT_EQ(0, rig.events.count(event::Information, msg::UnpackageCompleted));
}

TEST(Failures, CancelledStartEndsEveryThreadWithNotPrepared)
{
    Rig rig;
    rig.package();
    rig.script({64});
    rig.job.gate = 2;
    const auto codes = rig.run();
    EXPECT_EQ(std::vector<uint32_t>({state::Aborting, state::Aborting, state::Aborting}), codes);
    EXPECT_EQ(3, rig.events.count(event::StatusMessage, msg::RestoreFailed));
    EXPECT_TRUE(rig.sink->bytes.empty());
}

TEST(Failures, OneStageThatCannotBeRestoredReleasesItsNeighbours)
{
    Rig rig;
    rig.request.checkpointId = 2;
    rig.job.failRestoreOf = L"xTar";
    rig.package();
    for (int i = 0; i < 20; ++i)
        rig.source->script.push_back({64, 0});
    rig.request.contentLength = 20 * 64;
    const auto codes = rig.run();
    EXPECT_EQ(state::Aborting, codes[2]);
    EXPECT_NE(kTimedOut, codes[0]);
    EXPECT_NE(kTimedOut, codes[1]);
    EXPECT_EQ(1, rig.events.count(event::StatusMessage, msg::RestoreFailed));
}

TEST(Failures, MissingThreadDataAnswersGeneralError)
{
    EXPECT_EQ(qvdlm::status::GeneralError, readerStreamThread(nullptr));
    EXPECT_EQ(qvdlm::status::GeneralError, readerWriterStreamThread(nullptr));
    EXPECT_EQ(qvdlm::status::GeneralError, writerStreamThread(nullptr));
}

TEST(RetryCycle, FirstFailureOfARunningJobReconnectsAtOnce)
{
    Rig rig;
    rig.plain();
    rig.source->script = {{64, 0}, {0, 12030}, {64, 0}};
    rig.request.contentLength = 128;
    ASSERT_EQ(std::vector<uint32_t>({0u, 0u}), rig.run());
    EXPECT_EQ(resourceBytes(rig.source->url(), 0, 128), rig.sink->bytes);
    EXPECT_EQ(0, rig.services.sleeps.load());
    EXPECT_EQ(std::vector<uint32_t>({10000}), rig.services.timeouts());
    EXPECT_EQ(1, rig.events.count(event::StatusMessage, msg::NetworkConnecting));
    EXPECT_EQ(1, rig.events.count(event::StatusMessage, msg::NetworkConnected));
    EXPECT_EQ(0, rig.events.count(event::StatusMessage, msg::NetworkError));
    EXPECT_EQ(1, rig.job.validations());
}

TEST(RetryCycle, AfterOneSuccessTheNextCycleWaitsTenSteps)
{
    Rig rig;
    rig.job.state = state::Init; // not running: the waits apply
    rig.plain();
    rig.source->script = {{0, 12030}, {10, 0}, {0, 12030}, {10, 0}};
    rig.request.contentLength = 20;
    ASSERT_EQ(std::vector<uint32_t>({0u, 0u}), rig.run());
    EXPECT_EQ(10, rig.services.sleeps.load());
    EXPECT_EQ(std::vector<uint32_t>({10000, 10000}), rig.services.timeouts());
    EXPECT_EQ(resourceBytes(rig.source->url(), 0, 20), rig.sink->bytes);
}

TEST(RetryCycle, InterruptionRepeatsTheReadWithoutAnAttempt)
{
    Rig rig;
    rig.job.state = state::Init;
    rig.job.interruption = true;
    rig.plain();
    rig.source->script = {{0, 12030}, {10, 0}};
    rig.request.contentLength = 10;
    ASSERT_EQ(std::vector<uint32_t>({0u, 0u}), rig.run());
    EXPECT_EQ(0, rig.services.reconnectCalls.load());
    EXPECT_FALSE(rig.job.interruption.load());
}

TEST(RetryCycle, ExhaustedRetriesPauseTheJobAndThenGiveUp)
{
    Rig rig;
    rig.job.state = state::Init;
    rig.request.auxRetryCount = 0;
    rig.request.retryCount = 5;
    rig.plain();
    rig.source->script = {{0, 12030}};
    rig.request.contentLength = 100;
    for (int i = 0; i < 20; ++i)
        rig.services.reconnects.push_back(false);
    FakeControlThread control(rig.job);
    abortOnErrorEvents(rig);

    const auto codes = rig.run();
    EXPECT_EQ(state::Aborting, codes[0]);
    EXPECT_NE(kTimedOut, codes[1]);
    EXPECT_EQ(1, control.pauses.load());
    EXPECT_GE(rig.source->closes.load(), 1);
    // Six attempts (the limit and one more), waits growing 10, 30, 70, 150, 310 seconds in all.
    EXPECT_EQ(std::vector<uint32_t>({10000, 10000, 30000, 60000, 60000, 60000}), rig.services.timeouts());
    EXPECT_EQ(310, rig.services.sleeps.load());
    EXPECT_EQ(6, rig.events.count(event::StatusMessage, msg::NetworkConnecting));
    EXPECT_EQ(6, rig.events.count(event::StatusMessage, msg::NetworkError));
    EXPECT_EQ(1, rig.events.count(event::Error, msg::NetworkError));
    EXPECT_EQ(1, rig.events.countText(L"readerStreamThread connection restore failed: 5"));
    const auto statuses = rig.job.statuses();
    EXPECT_NE(statuses.end(), std::find(statuses.begin(), statuses.end(), qvdlm::status::NetworkError));
}

TEST(RetryCycle, PausedJobRetriesOnlyFromTheAuxiliaryCountOn)
{
    Rig rig;
    rig.job.state = state::Paused;
    rig.request.auxRetryCount = 2;
    rig.plain();
    rig.request.contentLength = 100;
    rig.source->beforeRead = [&rig](ScriptedSource& s) {
        if (s.reads.load() >= 30)
            rig.job.stop = true;
        s.script = {{0, 12030}};
    };
    const auto codes = rig.run();
    EXPECT_EQ(state::Paused, codes[0]);
    EXPECT_EQ(0, rig.services.reconnectCalls.load());
    EXPECT_GE(rig.source->reads.load(), 30);
}

TEST(RetryCycle, MockFailureNeverLeavesThroughSuccessAndFallsBackToHttp)
{
    ScopedEnv mock(L"DLM_MOCK_FAILURE", L"tRuE");
    Rig rig;
    rig.job.state = state::Init;
    rig.request.auxRetryCount = 0;
    rig.request.retryCount = 2;
    rig.request.fallbackRetryCount = 1;
    rig.request.useAkamai = true;
    rig.request.httpFallback = true;
    rig.request.blockUrls = {L"http://127.0.0.1:9421/local"};
    rig.plain();
    rig.source->script = {{20, 0}, {0, 12030}};
    rig.request.contentLength = 100;
    FakeControlThread control(rig.job);
    abortOnErrorEvents(rig);

    const auto codes = rig.run();
    EXPECT_EQ(state::Aborting, codes[0]);
    // Every reconnect succeeded, yet the read was never repeated.
    EXPECT_EQ(4, rig.services.reconnectCalls.load());
    EXPECT_EQ(4, rig.events.count(event::StatusMessage, msg::NetworkConnected));
    EXPECT_EQ(1, rig.events.countText(L"readerStreamThread retry succeeded: 1"));
    EXPECT_EQ(1, rig.events.countText(L"readerStreamThread retry succeeded: 3"));
    EXPECT_EQ(1, control.pauses.load());
    // The fallback replaced the source, resuming at the old one's position.
    EXPECT_EQ(1, rig.job.fallbacks.load());
    ASSERT_EQ(1u, rig.services.created().size());
    EXPECT_EQ(20, rig.services.created()[0].position);
    EXPECT_EQ(1, rig.events.countText(L"readerStreamThread fallbacks to http download instead of akamai"));
    EXPECT_EQ(1, rig.events.count(event::StatusMessage, msg::AkamaiFallback));
    EXPECT_EQ(1, rig.events.countText(L"readerStreamThread connection restore failed: 3"));
    EXPECT_EQ(1, rig.services.alive.load());
    // The abort may stop the sink before it takes the 20 bytes read; what it wrote must be theirs.
    ASSERT_LE(rig.sink->bytes.size(), 20u);
    EXPECT_EQ(resourceBytes(L"http://127.0.0.1:9421/local", 0, static_cast<int64_t>(rig.sink->bytes.size())),
              rig.sink->bytes);
}

TEST(RetryCycle, MockFailureOtherThanTrueChangesNothing)
{
    ScopedEnv mock(L"DLM_MOCK_FAILURE", L"1");
    Rig rig;
    rig.plain();
    rig.source->script = {{0, 12030}, {64, 0}};
    rig.request.contentLength = 64;
    ASSERT_EQ(std::vector<uint32_t>({0u, 0u}), rig.run());
    EXPECT_EQ(1, rig.services.reconnectCalls.load());
    EXPECT_EQ(64u, rig.sink->bytes.size());
}
