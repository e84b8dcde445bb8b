// Receivers of the library's events and the record that travels to them.
#pragma once

#include <cstdint>

#include "QvDLMExport.h"

class Download;

// One event, owned by its publisher and valid only during EventPublisher::publish.
struct EventRecord {
    Download* source; // the download concerned, or null
    uint32_t kind;    // qvdlm::event::*
    uint64_t value;   // a state, a message number or a pointer to a wide text, by kind
};

class QVDLM_API EventSubscriber {
public:
    virtual void notify(const EventRecord* record) = 0;

    EventSubscriber(const EventSubscriber&) = default;
    EventSubscriber& operator=(const EventSubscriber&) = default;

protected:
    EventSubscriber() = default;
    // Subscribers are owned by whoever made them; never deleted through this interface.
    ~EventSubscriber() = default;
};
