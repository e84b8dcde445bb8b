// Targets and their links, and the hand-off of slots between two threads.
#include <gtest/gtest.h>

#include "PipelineFakes.h"
#include "stream/StreamLink.h"

using fakes::FakeJob;
using fakes::FakeRequest;
using fakes::linkSpec;
using fakes::StageThread;
using qv::LinkConsumer;
using qv::LinkProducer;
using qv::SlotWait;

namespace {

constexpr uint64_t kSmall = 64;

// A stage that reports its destruction.
class MarkedStage final : public StreamWriter {
public:
    explicit MarkedStage(bool* destroyed) : destroyed_(destroyed) {}
    ~MarkedStage() override { *destroyed_ = true; }
    void close() override {}
    bool restoreState(const StreamStateHeader*) override { return true; }
    uint64_t saveState(StreamStateHeader*, uint64_t*) override { return 0; }
    int64_t writeBytes(const uint8_t*, uint32_t count) override { return count; }

private:
    bool* destroyed_;
};

StreamThreadData& dataOf(TargetImp& target) { return *target.streamData(); }

void expectFreshSlots(const BufferLink& link, uint64_t size)
{
    for (const auto& slot : link.slots) {
        ASSERT_NE(nullptr, slot);
        EXPECT_NE(nullptr, slot->data);
        EXPECT_EQ(size, slot->count);
        EXPECT_EQ(0u, slot->sequence);
        EXPECT_EQ(0u, slot->restart);
        EXPECT_NE(nullptr, slot->filled.handle.get());
        EXPECT_NE(nullptr, slot->emptied.handle.get());
        EXPECT_EQ(INFINITE, slot->filled.waitMs);
        EXPECT_EQ(INFINITE, slot->emptied.waitMs);
        // Auto-reset and initially non-signalled.
        EXPECT_EQ(static_cast<DWORD>(WAIT_TIMEOUT), WaitForSingleObject(slot->filled.handle.get(), 0));
        SetEvent(slot->filled.handle.get());
        EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(slot->filled.handle.get(), 0));
        EXPECT_EQ(static_cast<DWORD>(WAIT_TIMEOUT), WaitForSingleObject(slot->filled.handle.get(), 0));
    }
    EXPECT_NE(link.slots[0]->data, link.slots[1]->data);
}

struct Pipeline {
    FakeRequest request;
    FakeJob job{request};
};

} // namespace

TEST(Targets, TwoStagePipelineSharesOneLink)
{
    Pipeline p;
    TargetImp source(&p.job, nullptr);
    const LinkSpec http = linkSpec(1, kSmall, L"Http");
    ASSERT_TRUE(source.configure(new fakes::CollectingSink, &http));
    ASSERT_TRUE(source.createBuffers());
    TargetImp sink(&p.job, &source);
    const LinkSpec file = linkSpec(1, kSmall, L"File");
    ASSERT_TRUE(sink.configure(new fakes::CollectingSink, &file));
    ASSERT_TRUE(sink.createBuffers());

    EXPECT_EQ(1u, dataOf(source).linkCount);
    EXPECT_EQ(1u, dataOf(sink).linkCount);
    ASSERT_NE(nullptr, dataOf(source).links[0]);
    EXPECT_EQ(dataOf(source).links[0], dataOf(sink).links[0]);
    EXPECT_EQ(nullptr, dataOf(source).links[1]);
    EXPECT_EQ(kSmall, dataOf(source).links[0]->bufferSize);
    expectFreshSlots(*dataOf(source).links[0], kSmall);
    EXPECT_EQ(std::wstring(L"Http"), dataOf(source).stageName);
    EXPECT_EQ(std::wstring(L"File"), dataOf(sink).stageName);
    EXPECT_EQ(&p.job, dataOf(sink).job);
    EXPECT_EQ(&source, sink.previous());
}

TEST(Targets, ThreeStagePipelineGivesTheMiddleBothLinks)
{
    Pipeline p;
    TargetImp source(&p.job, nullptr);
    TargetImp middle(&p.job, &source);
    TargetImp sink(&p.job, &middle);
    const LinkSpec http = linkSpec(1, kSmall, L"Http");
    const LinkSpec lzma = linkSpec(2, kSmall, L"Lzma");
    const LinkSpec tar = linkSpec(1, kSmall, L"xTar");
    ASSERT_TRUE(source.configure(new fakes::CollectingSink, &http));
    ASSERT_TRUE(source.createBuffers());
    ASSERT_TRUE(middle.configure(new fakes::InvertingMiddle, &lzma));
    ASSERT_TRUE(middle.createBuffers());
    ASSERT_TRUE(sink.configure(new fakes::CollectingSink, &tar));
    ASSERT_TRUE(sink.createBuffers());

    EXPECT_EQ(2u, dataOf(middle).linkCount);
    EXPECT_EQ(dataOf(source).links[0], dataOf(middle).links[0]);
    EXPECT_EQ(dataOf(middle).links[1], dataOf(sink).links[0]);
    EXPECT_NE(dataOf(middle).links[0], dataOf(middle).links[1]);
    expectFreshSlots(*dataOf(middle).links[1], kSmall);
}

TEST(Targets, ConfigureRefusesBadSettings)
{
    Pipeline p;
    {
        TargetImp target(&p.job, nullptr);
        EXPECT_FALSE(target.configure(new fakes::CollectingSink, nullptr));
    }
    for (uint32_t count : {0u, 3u}) {
        TargetImp target(&p.job, nullptr);
        const LinkSpec spec = linkSpec(count, kSmall, L"Http");
        EXPECT_FALSE(target.configure(new fakes::CollectingSink, &spec)) << count;
    }
    // A successor of a target without links has nothing to share.
    TargetImp empty(&p.job, nullptr);
    TargetImp next(&p.job, &empty);
    const LinkSpec spec = linkSpec(1, kSmall, L"File");
    EXPECT_FALSE(next.configure(new fakes::CollectingSink, &spec));
}

TEST(Targets, StageNameIsCutToFiveUnits)
{
    Pipeline p;
    TargetImp target(&p.job, nullptr);
    LinkSpec spec = linkSpec(1, kSmall, L"Http");
    for (size_t i = 0; i < kStageNameLength; ++i)
        spec.stageName[i] = L'A' + static_cast<wchar_t>(i); // no terminator at all
    ASSERT_TRUE(target.configure(new fakes::CollectingSink, &spec));
    EXPECT_EQ(std::wstring(L"ABCDE"), dataOf(target).stageName);
}

TEST(Targets, BuffersTooLargeForASlotAreRefusedAndFreed)
{
    Pipeline p;
    TargetImp target(&p.job, nullptr);
    const LinkSpec spec = linkSpec(1, 0x100000000ULL, L"Http");
    ASSERT_TRUE(target.configure(new fakes::CollectingSink, &spec));
    EXPECT_FALSE(target.createBuffers());
    EXPECT_EQ(nullptr, dataOf(target).links[0]->slots[0]);
    EXPECT_EQ(nullptr, dataOf(target).links[0]->slots[1]);
}

TEST(Targets, SharedLinkIsNotAllocatedTwice)
{
    Pipeline p;
    TargetImp source(&p.job, nullptr);
    const LinkSpec http = linkSpec(1, kSmall, L"Http");
    ASSERT_TRUE(source.configure(new fakes::CollectingSink, &http));
    ASSERT_TRUE(source.createBuffers());
    uint8_t* before = dataOf(source).links[0]->slots[0]->data;
    TargetImp sink(&p.job, &source);
    const LinkSpec file = linkSpec(1, 2 * kSmall, L"File");
    ASSERT_TRUE(sink.configure(new fakes::CollectingSink, &file));
    ASSERT_TRUE(sink.createBuffers());
    EXPECT_EQ(before, dataOf(sink).links[0]->slots[0]->data);
    EXPECT_EQ(kSmall, dataOf(sink).links[0]->bufferSize);
}

TEST(Targets, DestructionDestroysTheCurrentStage)
{
    Pipeline p;
    bool first = false;
    bool second = false;
    {
        TargetImp target(&p.job, nullptr);
        const LinkSpec spec = linkSpec(1, kSmall, L"File");
        ASSERT_TRUE(target.configure(new MarkedStage(&first), &spec));
        ASSERT_TRUE(target.createBuffers());
        // The source thread replaces its stage; the target owns whichever is current.
        delete dataOf(target).stage;
        dataOf(target).stage = new MarkedStage(&second);
        EXPECT_TRUE(first);
        EXPECT_FALSE(second);
    }
    EXPECT_TRUE(second);
}

TEST(Prepare, WithoutCheckpointNothingIsRestored)
{
    Pipeline p;
    TargetImp target(&p.job, nullptr);
    const LinkSpec spec = linkSpec(1, kSmall, L"Http");
    ASSERT_TRUE(target.configure(new fakes::CollectingSink, &spec));
    EXPECT_EQ(TargetImp::kNotPrepared, target.prepareResult());
    EXPECT_TRUE(target.prepare(dataOf(target).stage, false));
    EXPECT_TRUE(p.job.restored().empty());
    EXPECT_EQ(TargetImp::kPrepared, target.prepareResult());
}

TEST(Prepare, CheckpointIsRestoredUnderTheStageName)
{
    Pipeline p;
    p.request.checkpointId = 4;
    TargetImp target(&p.job, nullptr);
    const LinkSpec spec = linkSpec(1, kSmall, L"xTar");
    ASSERT_TRUE(target.configure(new fakes::CollectingSink, &spec));
    EXPECT_TRUE(target.prepare(dataOf(target).stage, true));
    ASSERT_EQ(1u, p.job.restored().size());
    EXPECT_EQ(L"xTar", p.job.restored()[0]);
}

TEST(Prepare, FailedRestoreFails)
{
    Pipeline p;
    p.request.checkpointId = 4;
    p.job.restoreResult = false;
    TargetImp target(&p.job, nullptr);
    const LinkSpec spec = linkSpec(1, kSmall, L"Lzma");
    ASSERT_TRUE(target.configure(new fakes::CollectingSink, &spec));
    EXPECT_FALSE(target.prepare(dataOf(target).stage, true));
    EXPECT_EQ(TargetImp::kPrepareFailed, target.prepareResult());
}

TEST(Prepare, CancelledGateFails)
{
    Pipeline p;
    p.job.gate = 2;
    TargetImp target(&p.job, nullptr);
    const LinkSpec spec = linkSpec(1, kSmall, L"Http");
    ASSERT_TRUE(target.configure(new fakes::CollectingSink, &spec));
    EXPECT_FALSE(target.prepare(dataOf(target).stage, false));
    EXPECT_EQ(TargetImp::kPrepared, target.prepareResult());
}

TEST(Prepare, UndecidedGateWaitsForTheJob)
{
    Pipeline p;
    p.job.gate = 0;
    TargetImp target(&p.job, nullptr);
    const LinkSpec spec = linkSpec(1, kSmall, L"Http");
    ASSERT_TRUE(target.configure(new fakes::CollectingSink, &spec));
    StageThread thread([&] { return target.prepare(dataOf(target).stage, false) ? 1u : 0u; });
    // The readiness word is set before the gate is read: the job decides from it.
    for (int i = 0; i < 5000 && target.prepareResult() != TargetImp::kPrepared; ++i)
        Sleep(1);
    EXPECT_EQ(TargetImp::kPrepared, target.prepareResult());
    EXPECT_FALSE(thread.finished(0));
    p.job.gate = 1;
    EXPECT_EQ(1u, thread.join());
}

TEST(Prepare, UndecidedGateGivesUpWhenTheJobEnds)
{
    for (uint32_t ending : {qvdlm::state::Exiting, qvdlm::state::Aborting}) {
        Pipeline p;
        p.job.gate = 0;
        TargetImp target(&p.job, nullptr);
        const LinkSpec spec = linkSpec(1, kSmall, L"Http");
        ASSERT_TRUE(target.configure(new fakes::CollectingSink, &spec));
        StageThread thread([&] { return target.prepare(dataOf(target).stage, false) ? 1u : 0u; });
        p.job.state = ending;
        EXPECT_EQ(0u, thread.join());
    }
}

namespace {

// One link between the test thread and a helper thread.
struct LinkFixture {
    Pipeline p;
    TargetImp target{&p.job, nullptr};
    BufferLink* link = nullptr;

    LinkFixture()
    {
        const LinkSpec spec = linkSpec(1, kSmall, L"Http");
        EXPECT_TRUE(target.configure(new fakes::CollectingSink, &spec));
        EXPECT_TRUE(target.createBuffers());
        link = dataOf(target).links[0];
    }
};

uint32_t waitCode(SlotWait w) { return static_cast<uint32_t>(w); }

} // namespace

TEST(HandOff, ConsumerWaitingForDataLeavesOnEitherStopMessage)
{
    for (UINT stop : {static_cast<UINT>(qvdlm::command::AbortDiscard), static_cast<UINT>(qvdlm::command::StopKeep),
                      static_cast<UINT>(WM_QUIT)}) {
        LinkFixture f;
        StageThread consumer([&] {
            qv::ensureMessageQueue();
            LinkConsumer in(f.link);
            in.start();
            return waitCode(in.acquire());
        });
        // Nothing is ever produced: only the message can end the wait.
        ASSERT_TRUE(consumer.post(stop));
        EXPECT_EQ(waitCode(SlotWait::Stopped), consumer.join()) << stop;
    }
}

TEST(HandOff, OtherMessagesAreDroppedAndTheWaitGoesOn)
{
    LinkFixture f;
    std::atomic<int> phase{0};
    StageThread consumer([&] {
        qv::ensureMessageQueue();
        LinkConsumer in(f.link);
        phase = 1;
        const SlotWait w = in.acquire();
        MSG left;
        const bool queueEmpty = !PeekMessageW(&left, nullptr, 0, 0, PM_REMOVE);
        return waitCode(w) | (queueEmpty ? 0x100u : 0u);
    });
    ASSERT_TRUE(consumer.post(WM_USER + 5));
    ASSERT_TRUE(consumer.post(qvdlm::command::Pause));
    EXPECT_FALSE(consumer.finished(200)); // still waiting: those messages do not end it
    LinkProducer out(f.link);
    out.start();
    ASSERT_EQ(SlotWait::Ready, out.acquire());
    out.slot().count = 3;
    out.publish();
    EXPECT_EQ(waitCode(SlotWait::Ready) | 0x100u, consumer.join());
}

TEST(HandOff, StopPostedBeforeTheWaitStillEndsIt)
{
    LinkFixture f;
    HANDLE queued = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HANDLE go = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    StageThread consumer([&] {
        qv::ensureMessageQueue();
        SetEvent(queued);
        WaitForSingleObject(go, 10000);
        // Looking at the queue without taking the message marks it as seen.
        MSG peeked;
        PeekMessageW(&peeked, nullptr, 0, 0, PM_NOREMOVE);
        LinkConsumer in(f.link);
        return waitCode(in.acquire());
    });
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(queued, 10000));
    ASSERT_TRUE(PostThreadMessageW(consumer.id(), qvdlm::command::StopKeep, 0, 0));
    SetEvent(go);
    EXPECT_EQ(waitCode(SlotWait::Stopped), consumer.join());
    CloseHandle(queued);
    CloseHandle(go);
}

TEST(HandOff, SlotsAlternateAndCarryTheirFields)
{
    LinkFixture f;
    constexpr int kSlots = 50;
    StageThread consumer([&] {
        qv::ensureMessageQueue();
        LinkConsumer in(f.link);
        in.start();
        uint32_t bad = 0;
        for (int i = 0; i < kSlots; ++i) {
            if (in.acquire() != SlotWait::Ready)
                return 0xDEADu;
            const BufferSlot& s = in.slot();
            if (s.sequence != static_cast<uint32_t>(i + 1) || s.count != static_cast<uint32_t>(i % 7) ||
                (s.count > 0 && s.data[0] != static_cast<uint8_t>(i)) || &s != f.link->slots[i % 2].get())
                ++bad;
            in.release();
        }
        return bad;
    });
    LinkProducer out(f.link);
    out.start();
    for (int i = 0; i < kSlots; ++i) {
        ASSERT_EQ(SlotWait::Ready, out.acquire());
        out.slot().sequence = static_cast<uint32_t>(i + 1);
        out.slot().count = static_cast<uint32_t>(i % 7);
        out.slot().data[0] = static_cast<uint8_t>(i);
        out.publish();
    }
    EXPECT_EQ(0u, consumer.join());
    EXPECT_EQ(kSlots, out.counter());
}

TEST(HandOff, ProducerFarewellIsSeenAfterTheLastRealSlot)
{
    LinkFixture f;
    LinkProducer out(f.link);
    out.start();
    // Two real fills, then the farewell, before the consumer even looks: the farewell shares its
    // event with the first fill, yet the consumer must see both fills and then the end.
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(SlotWait::Ready, out.acquire());
        out.slot().count = 10 + static_cast<uint32_t>(i);
        out.publish();
        if (i == 0) {
            LinkConsumer early(f.link);
            early.start();
        }
    }
    out.finish();
    StageThread consumer([&] {
        qv::ensureMessageQueue();
        LinkConsumer in(f.link);
        uint32_t seen = 0;
        for (int i = 0; i < 2; ++i) {
            if (in.acquire() != SlotWait::Ready)
                return 0xBADu;
            seen += in.slot().count;
            in.release();
        }
        return in.acquire() == SlotWait::Closed ? seen : 0xBAD0u;
    });
    EXPECT_EQ(21u, consumer.join());
}

TEST(HandOff, ConsumerFarewellWakesAWaitingProducer)
{
    LinkFixture f;
    StageThread producer([&] {
        qv::ensureMessageQueue();
        LinkProducer out(f.link);
        out.start();
        SlotWait w = SlotWait::Ready;
        int filled = 0;
        while ((w = out.acquire()) == SlotWait::Ready && filled < 100) {
            out.slot().count = 1;
            out.publish();
            ++filled;
        }
        return waitCode(w) | (static_cast<uint32_t>(filled) << 8);
    });
    LinkConsumer in(f.link);
    in.start();
    ASSERT_EQ(SlotWait::Ready, in.acquire());
    in.release();
    in.finish();
    const uint32_t code = producer.join();
    EXPECT_EQ(waitCode(SlotWait::Closed), code & 0xFFu);
    EXPECT_LE(code >> 8, 3u); // at most what fitted before the farewell
}

TEST(HandOff, ConsumerThatNeverStartedStillReleasesTheProducer)
{
    LinkFixture f;
    StageThread producer([&] {
        qv::ensureMessageQueue();
        LinkProducer out(f.link);
        out.start();
        if (out.acquire() != SlotWait::Ready)
            return 0xBADu;
        out.publish();
        // Slot 1 is freed only by a consumer's start, which never comes.
        return waitCode(out.acquire());
    });
    EXPECT_FALSE(producer.finished(100));
    LinkConsumer in(f.link);
    in.finish(); // a consumer that failed before its start
    EXPECT_EQ(waitCode(SlotWait::Closed), producer.join());
}
