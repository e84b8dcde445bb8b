#include "log/EventPublisherImpl.h"

#include <cstdlib>

namespace {

EventPublisherImpl* g_publisher = nullptr;

// The text that publishText is handing out on this thread; subscribers run synchronously inside it.
thread_local uint64_t t_publishedText = 0;

void destroyPublisher()
{
    delete g_publisher;
    g_publisher = nullptr;
}

} // namespace

EventPublisher* EventPublisher::getInstance()
{
    // Made on first use; the first call happens before several threads can race for it.
    if (!g_publisher) {
        g_publisher = new EventPublisherImpl();
        std::atexit(destroyPublisher);
    }
    return g_publisher;
}

EventPublisherImpl::~EventPublisherImpl()
{
    qv::CsLock hold(lock_);
    subscribers_.clear();
}

void EventPublisherImpl::subscribe(EventSubscriber* subscriber)
{
    qv::CsLock hold(lock_);
    subscribers_.insert(subscriber);
}

void EventPublisherImpl::unsubscribe(EventSubscriber* subscriber)
{
    qv::CsLock hold(lock_);
    subscribers_.erase(subscriber);
}

void EventPublisherImpl::publish(const EventRecord* record)
{
    // No lock: subscriptions are made before downloads start and removed after they end.
    for (EventSubscriber* subscriber : subscribers_)
        subscriber->notify(record);
}

size_t EventPublisherImpl::subscriberCount()
{
    qv::CsLock hold(lock_);
    return subscribers_.size();
}

void publishEvent(Download* source, uint32_t kind, uint64_t value)
{
    EventRecord record{source, kind, value};
    EventPublisher::getInstance()->publish(&record);
}

void publishText(Download* source, const wchar_t* text, uint32_t kind)
{
    const uint64_t value = reinterpret_cast<uint64_t>(text);
    const uint64_t outer = t_publishedText;
    t_publishedText = value;
    publishEvent(source, kind, value);
    t_publishedText = outer;
}

bool isPublishedText(uint64_t value) { return value != 0 && value == t_publishedText; }
