// The process-wide hub that hands every event to every subscriber, synchronously.
#pragma once

#include "EventSubscriber.h"

class QVDLM_API EventPublisher {
public:
    static EventPublisher* getInstance();

    virtual void subscribe(EventSubscriber* subscriber) = 0;
    virtual void unsubscribe(EventSubscriber* subscriber) = 0;
    virtual void publish(const EventRecord* record) = 0;

    EventPublisher(const EventPublisher&) = default;
    EventPublisher& operator=(const EventPublisher&) = default;

protected:
    EventPublisher() = default;
    virtual ~EventPublisher() = default;
};
