// Listens to the library's events and keeps what the user needs to see when something goes wrong: the
// last status message of each download and the diagnostic lines about URLs (validation).
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "QvDLM.h"

namespace qvcli {

class EventCollector : public EventSubscriber {
public:
    // Runs on whichever library thread publishes.
    void notify(const EventRecord* record) override;

    // The last status message number (1000..1021) reported for the download, 0 when none.
    uint32_t lastMessage(Download* download) const;
    // Diagnostic lines published without a download that mention text (a URL).
    std::vector<std::wstring> linesAbout(const std::wstring& text) const;

    static constexpr size_t kMaxLines = 200;

private:
    mutable std::mutex lock_;
    std::map<Download*, uint32_t> messages_;
    std::deque<std::wstring> lines_;
};

} // namespace qvcli
