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

std::vector<std::wstring> EventCollector::linesAbout(const std::wstring& text) const
{
    std::vector<std::wstring> out;
    std::lock_guard<std::mutex> hold(lock_);
    for (const std::wstring& line : lines_)
        if (!text.empty() && line.find(text) != std::wstring::npos)
            out.push_back(line);
    return out;
}

} // namespace qvcli
