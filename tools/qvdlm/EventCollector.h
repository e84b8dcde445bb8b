// Listens to the library's events and keeps what the user needs to see when something goes wrong: the
// last status message of each download and the lines of URL validation.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>

#include "QvDLM.h"

namespace qvcli {

class EventCollector : public EventSubscriber {
public:
    // Runs on whichever library thread publishes.
    void notify(const EventRecord* record) override;

    // The last status message number (1000..1021) reported for the download, 0 when none.
    uint32_t lastMessage(Download* download) const;
    // The last validation line ("validateUrl: ...") that mentions url; empty when there is none.
    std::wstring lastLineAbout(const std::wstring& url) const;

    static constexpr size_t kMaxLines = 200;

private:
    mutable std::mutex lock_;
    std::map<Download*, uint32_t> messages_;
    std::deque<std::wstring> lines_;
};

} // namespace qvcli
