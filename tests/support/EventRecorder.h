// Keeps every event published in the process while it lives; tests query it from any thread.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "EventPublisher.h"
#include "EventSubscriber.h"
#include "QvDLMCodes.h"

class EventRecorder final : public EventSubscriber {
public:
    struct Entry {
        Download* source;
        uint32_t kind;
        uint64_t value; // a message number, or 0 when the event carried a text
        std::wstring text;
    };

    EventRecorder() { EventPublisher::getInstance()->subscribe(this); }
    ~EventRecorder() { EventPublisher::getInstance()->unsubscribe(this); }
    EventRecorder(const EventRecorder&) = delete;
    EventRecorder& operator=(const EventRecorder&) = delete;

    // Called for every event, on the publishing thread, after it was kept.
    std::function<void(const Entry&)> onEvent;

    void notify(const EventRecord* record) override
    {
        Entry e{record->source, record->kind, record->value, {}};
        if (record->kind == qvdlm::event::Information && qvdlm::eventValueIsText(record->value)) {
            e.text = reinterpret_cast<const wchar_t*>(record->value);
            e.value = 0;
        }
        {
            std::lock_guard<std::mutex> hold(mutex_);
            events_.push_back(e);
        }
        if (onEvent)
            onEvent(e);
    }

    std::vector<Entry> events()
    {
        std::lock_guard<std::mutex> hold(mutex_);
        return events_;
    }
    void clear()
    {
        std::lock_guard<std::mutex> hold(mutex_);
        events_.clear();
    }
    // Values of one kind from one download (any download when source is null).
    std::vector<uint64_t> values(Download* source, uint32_t kind)
    {
        std::vector<uint64_t> out;
        for (const auto& e : events())
            if ((!source || e.source == source) && e.kind == kind && e.text.empty())
                out.push_back(e.value);
        return out;
    }
    int count(Download* source, uint32_t kind, uint64_t value)
    {
        int n = 0;
        for (uint64_t v : values(source, kind))
            n += v == value;
        return n;
    }
    bool has(Download* source, uint32_t kind, uint64_t value) { return count(source, kind, value) > 0; }
    bool hasText(const std::wstring& part)
    {
        for (const auto& e : events())
            if (!e.text.empty() && e.text.find(part) != std::wstring::npos)
                return true;
        return false;
    }

private:
    std::mutex mutex_;
    std::vector<Entry> events_;
};
