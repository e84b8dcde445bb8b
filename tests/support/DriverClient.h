// Shared by the driver programs that the kill and soak tests run as separate processes: they use the
// installed interface only, start one download or restore the stored ones, and report on stdout/stderr.
#pragma once

#include <cstdio>
#include <cstdlib>

#include "QvDLM.h"

namespace driver {

// Status messages, failures and text lines go to standard error, for the test's diagnostics.
class EventEcho final : public EventSubscriber {
public:
    void notify(const EventRecord* record) override
    {
        if (record->kind == qvdlm::event::Information && qvdlm::eventValueIsText(record->value))
            std::fprintf(stderr, "E3 %ls\n", reinterpret_cast<const wchar_t*>(record->value));
        else if (record->kind != qvdlm::event::Information)
            std::fprintf(stderr, "E%u %llu\n", record->kind, static_cast<unsigned long long>(record->value));
    }
};

// Adds and starts one download; false when the manager refuses it.
inline bool startOne(DownloadMgr* manager, const wchar_t* url, const wchar_t* dest, const wchar_t* saveInterval)
{
    DownloadRequest* request = QvDLM::createDownloadRequest();
    request->setUrl(url, nullptr, nullptr);
    request->setDestDir(dest);
    request->setSaveInterval(std::wcstoull(saveInterval, nullptr, 10));
    Download* d = manager->addDownload(request);
    return d && manager->startDownload(d);
}

// Restores the stored downloads and sets them going, then prints "R <bytes>" for each (bytes held).
inline void restoreAll(DownloadMgr* manager)
{
    manager->beginRestore();
    manager->restore();
    for (Download* d : manager->getDownloads())
        manager->control(d, qvdlm::command::Start);
    manager->endRestore();
    // A download that was paused when its process ended goes on too.
    for (Download* d : manager->getDownloads())
        manager->control(d, qvdlm::command::Resume);
    for (Download* d : manager->getDownloads())
        std::printf("R %llu\n", static_cast<unsigned long long>(d->getDownloadedSize()));
    std::fflush(stdout);
}

} // namespace driver
