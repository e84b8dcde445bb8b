// The process-wide event hub as clients use it through QvDLM.dll.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "QvDLM.h"

namespace {

std::vector<const void*> g_order; // who was called, in order (single-threaded parts only)

struct Recorder : EventSubscriber {
    void notify(const EventRecord* record) override
    {
        ++calls;
        if (keep) {
            last = *record;
            g_order.push_back(this);
        }
    }
    std::atomic<int> calls{0};
    bool keep = true;
    EventRecord last{};
};

void publish(uint32_t kind, uint64_t value)
{
    EventRecord record{nullptr, kind, value};
    EventPublisher::getInstance()->publish(&record);
}

} // namespace

TEST(EventPublisher, DeliversOnceToEachSubscriberInAddressOrder)
{
    EventPublisher* hub = EventPublisher::getInstance();
    ASSERT_EQ(hub, EventPublisher::getInstance());
    publish(5, 5); // nobody listens
    std::vector<Recorder> recorders(4);
    Recorder stranger;
    for (int i : {2, 0, 3, 1, 2})
        hub->subscribe(&recorders[i]);
    hub->unsubscribe(&stranger);
    publish(1, 0x20000002);
    EXPECT_EQ(g_order.size(), 4u);
    EXPECT_TRUE(std::is_sorted(g_order.begin(), g_order.end(), std::less<const void*>()));
    EXPECT_TRUE(recorders[3].last.kind == 1 && recorders[3].last.value == 0x20000002 && recorders[3].last.source == nullptr);
    hub->unsubscribe(&recorders[0]);
    publish(4, 2);
    EXPECT_EQ(recorders[0].calls + recorders[1].calls + recorders[2].calls + recorders[3].calls + stranger.calls, 1 + 2 + 2 + 2);

    // Concurrent publishers reach every subscriber exactly once per event.
    for (auto& r : recorders)
        r.keep = false;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([] {
            for (int i = 0; i < 2000; ++i)
                publish(0, 0);
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(recorders[1].calls, 2 + 8000);
    for (auto& r : recorders)
        hub->unsubscribe(&r);
}
