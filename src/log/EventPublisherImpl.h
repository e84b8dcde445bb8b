// The event hub: an address-ordered set of subscribers, called synchronously on the publishing thread.
#pragma once

#include <set>

#include "EventPublisher.h"
#include "common/Win32Raii.h"

class EventPublisherImpl final : public EventPublisher {
public:
    EventPublisherImpl() = default;
    ~EventPublisherImpl() override;

    void subscribe(EventSubscriber* subscriber) override;
    void unsubscribe(EventSubscriber* subscriber) override;
    void publish(const EventRecord* record) override;

    // How many subscribers are registered (for diagnostics and tests).
    size_t subscriberCount();

private:
    std::set<EventSubscriber*> subscribers_;
    qv::CriticalSection lock_;
};

// Publishes one event with the given fields through the process's hub.
void publishEvent(Download* source, uint32_t kind, uint64_t value);
// Publishes a text line (kind 3 by default); the text must live until the call returns.
void publishText(Download* source, const wchar_t* text, uint32_t kind = 3);
// True while publishText is handing this very value to the subscribers on the calling thread.
bool isPublishedText(uint64_t value);
