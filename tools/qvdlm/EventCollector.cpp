#include "EventCollector.h"

namespace qvcli {

void EventCollector::notify(const EventRecord* record)
{
    if (!record)
        return;
    const bool isText = qvdlm::eventValueIsText(record->value);
    std::lock_guard<std::mutex> hold(lock_);
    if (record->source && !isText &&
        (record->kind == qvdlm::event::StatusMessage || record->kind == qvdlm::event::Error)) {
        messages_[record->source] = static_cast<uint32_t>(record->value & 0xFFFF);
        return;
    }
    if (!record->source && isText) {
        // The text lives only while the event is delivered: keep a copy.
        const auto* text = reinterpret_cast<const wchar_t*>(static_cast<uintptr_t>(record->value));
        lines_.emplace_back(text);
        if (lines_.size() > kMaxLines)
            lines_.pop_front();
    }
}

uint32_t EventCollector::lastMessage(Download* download) const
{
    std::lock_guard<std::mutex> hold(lock_);
    const auto it = messages_.find(download);
    return it == messages_.end() ? 0 : it->second;
}

std::wstring EventCollector::lastLineAbout(const std::wstring& url) const
{
    std::lock_guard<std::mutex> hold(lock_);
    for (auto line = lines_.rbegin(); line != lines_.rend(); ++line)
        if (!url.empty() && line->find(url) != std::wstring::npos && line->compare(0, 12, L"validateUrl:") == 0)
            return *line;
    return {};
}

} // namespace qvcli
