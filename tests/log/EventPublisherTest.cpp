// The process-wide event hub as clients use it through QvDLM.dll.
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "QvDLM.h"

namespace {

// Records the order in which subscribers are called, shared by all recorders of one test.
struct CallLog {
    std::vector<const void*> order;
};

class Recorder : public EventSubscriber {
public:
    void notify(const EventRecord* record) override
    {
        ++calls;
        if (keepLast)
            last = *record;
        if (log)
            log->order.push_back(this);
    }
    CallLog* log = nullptr;
    std::atomic<int> calls{0};
    bool keepLast = true; // off when several threads publish at once
    EventRecord last{};
};

class HubTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        for (auto* s : subscribed)
            hub->unsubscribe(s);
    }
    void subscribe(EventSubscriber* s)
    {
        hub->subscribe(s);
        subscribed.push_back(s);
    }
    void publish(uint32_t kind, uint64_t value)
    {
        EventRecord r{nullptr, kind, value};
        hub->publish(&r);
    }
    EventPublisher* hub = EventPublisher::getInstance();
    std::vector<EventSubscriber*> subscribed;
};

} // namespace

TEST_F(HubTest, IsOneInstance) { EXPECT_EQ(EventPublisher::getInstance(), hub); }

TEST_F(HubTest, DeliversToSubscribersInAddressOrderNotSubscriptionOrder)
{
    CallLog log;
    std::unique_ptr<Recorder[]> recorders(new Recorder[4]);
    for (int i = 0; i < 4; ++i)
        recorders[i].log = &log;
    // Subscribe in a scrambled order.
    for (int i : {2, 0, 3, 1})
        subscribe(&recorders[i]);

    publish(qvdlm::event::StateChange, qvdlm::state::Play);

    ASSERT_EQ(log.order.size(), 4u);
    EXPECT_TRUE(std::is_sorted(log.order.begin(), log.order.end(), std::less<const void*>()));
    EXPECT_EQ(recorders[3].last.kind, qvdlm::event::StateChange);
    EXPECT_EQ(recorders[3].last.value, qvdlm::state::Play);
    EXPECT_EQ(recorders[3].last.source, nullptr);
}

TEST_F(HubTest, SubscribingTwiceDeliversOnce)
{
    Recorder r;
    subscribe(&r);
    hub->subscribe(&r);
    publish(qvdlm::event::Information, 1009);
    EXPECT_EQ(r.calls, 1);
}

TEST_F(HubTest, UnsubscribeStopsDeliveryAndUnknownPointerIsIgnored)
{
    Recorder a, b, stranger;
    subscribe(&a);
    subscribe(&b);
    hub->unsubscribe(&stranger);
    publish(qvdlm::event::Debug, 1);
    hub->unsubscribe(&a);
    publish(qvdlm::event::Debug, 2);
    EXPECT_EQ(a.calls, 1);
    EXPECT_EQ(b.calls, 2);
    EXPECT_EQ(b.last.value, 2u);
    EXPECT_EQ(stranger.calls, 0);
}

TEST_F(HubTest, PublishWithoutSubscribersReturns)
{
    publish(qvdlm::event::Warning, 5);
    SUCCEED();
}

TEST_F(HubTest, ConcurrentPublishersReachEverySubscriberExactlyOnceEach)
{
    Recorder a, b;
    a.keepLast = b.keepLast = false;
    subscribe(&a);
    subscribe(&b);
    constexpr int kThreads = 4, kEach = 2000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([this, t] {
            for (int i = 0; i < kEach; ++i)
                publish(qvdlm::event::Progress, static_cast<uint64_t>(t));
        });
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(a.calls, kThreads * kEach);
    EXPECT_EQ(b.calls, kThreads * kEach);
}
