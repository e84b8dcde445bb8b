// The hand-off on one buffer link: each side keeps its own slot counter and works on the slot at
// that counter modulo 2, waiting on the slot's events. Every wait also ends on the job's stop
// messages, so that a stage thread never outlives a stop request inside a wait.
#pragma once

#include <windows.h>

#include <cstdint>

#include "stream/Stream.h"

namespace qv {

enum class SlotWait {
    Ready,   // the event came: the slot is ours
    Stopped, // a stop message or quit arrived first; the caller goes back to its stop check
    Closed,  // the other side has left (or the wait itself failed): nothing more will come
};

// Gives the calling thread its message queue, so that stop messages can be posted to it.
void ensureMessageQueue();

// True for the thread messages that end a wait: the job's two stop commands and quit.
bool isStopMessage(UINT message);

// Waits for one slot event. Thread messages wake the wait: a stop message ends it, any other one
// is dropped and the wait goes on.
SlotWait waitForSlotEvent(const SlotEvent& event);

// Waits on a job's state without a fixed period: yields the processor, and after a while sleeps a
// millisecond so that a long wait does not spin a core.
class StatePoller {
public:
    void yield();

private:
    uint32_t polls_ = 0;
};

// The producing side of a link.
class LinkProducer {
public:
    explicit LinkProducer(BufferLink* link) : link_(link) {}

    // Both slots begin free: the producer frees slot 0.
    void start();
    // Waits until the current slot may be filled.
    SlotWait acquire();
    BufferSlot& slot() const { return *link_->slots[index()]; }
    uint32_t capacity() const;
    // Hands the current slot over and moves to the next.
    void publish();
    // Leaves the link: the consumer wakes on the slot it waits for and finds nothing more.
    void finish();
    int64_t counter() const { return counter_; }

private:
    size_t index() const { return static_cast<size_t>(((counter_ % 2) + 2) % 2); }

    BufferLink* link_;
    int64_t counter_ = 0;
    bool finished_ = false;
};

// The consuming side of a link.
class LinkConsumer {
public:
    explicit LinkConsumer(BufferLink* link) : link_(link) {}

    // Both slots begin free: the consumer frees slot 1.
    void start();
    // Waits until the current slot holds data; Closed when the producer has left before filling it.
    SlotWait acquire();
    BufferSlot& slot() const { return *link_->slots[index()]; }
    // Gives the current slot back and moves to the next.
    void release();
    // Leaves the link: the producer wakes on the slot it waits for and learns that nobody reads.
    void finish();
    int64_t counter() const { return counter_; }

private:
    size_t index() const { return static_cast<size_t>(((counter_ % 2) + 2) % 2); }

    BufferLink* link_;
    int64_t counter_ = 0;
    bool finished_ = false;
};

} // namespace qv
