// qvdlm resume: re-creates every stored download and finishes those that were not done.
#include "Commands.h"
#include "LibrarySession.h"
#include "StopSignal.h"
#include "Transfers.h"

namespace qvcli {

int runResume(const Options& o, Console& console)
{
    LibrarySession session(console);
    if (!session.openStore(o.storePath) || !session.openLog(o.logPath) || !session.openManager())
        return exitcode::Failed;
    DownloadMgr* manager = session.manager();
    if (o.maxActive > 0)
        manager->setMaxActive(o.maxActive);

    manager->beginRestore();
    manager->restore();
    manager->endRestore();
    const DownloadList downloads = manager->getDownloads();
    if (downloads.empty()) {
        console.line(L"nothing to resume");
        return exitcode::Ok;
    }

    std::vector<Tracked> items;
    bool anyAborted = false;
    for (Download* d : downloads) {
        DownloadRequest* request = d->getRequest();
        const std::wstring label = request->getName() && *request->getName() ? request->getName() : request->getId();
        const uint32_t state = d->getState();
        if (state == qvdlm::state::Completed) {
            console.line(label + L": completed earlier; files in " + filesLocation(d));
            continue;
        }
        if (state == qvdlm::state::Aborted) {
            // Restoring found it unusable (its server refuses it, or it is newer than this library).
            console.line(label + L": " + describe(state, d->getStatus()) + L"; \"qvdlm remove " +
                         request->getId() + L"\" forgets it");
            anyAborted = true;
            continue;
        }
        Tracked item;
        item.download = d;
        item.label = label;
        item.url = request->getUrl(false) ? request->getUrl(false) : request->getId();
        item.startBytes = d->getDownloadedSize();
        items.push_back(item);
    }

    stopSignal::install();
    for (Tracked& item : items) {
        const bool paused = item.download->getState() == qvdlm::state::Paused;
        console.line(L"resume " + std::wstring(item.download->getRequest()->getId()) + L" (" +
                     formatBytes(item.startBytes) + L" stored)");
        manager->control(item.download, paused ? qvdlm::command::Resume : qvdlm::command::Start);
    }
    TransferSummary summary;
    if (!items.empty()) {
        TransferSettings settings;
        settings.timeoutSeconds = o.timeoutSeconds;
        settings.stopAfter = o.stopAfter;
        summary = Transfers(*manager, console, session.events(), settings).run(items);
    }
    stopSignal::done();
    const int status = exitStatusFor(summary, items.size());
    return anyAborted && status == exitcode::Ok ? exitcode::Failed : status;
}

} // namespace qvcli
