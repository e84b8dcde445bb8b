// qvdlm resume: re-creates every stored download and finishes those that were not done. Downloads that
// had completed or failed before are left alone (the store keeps them until "qvdlm remove").
#include <set>

#include "Commands.h"
#include "LibrarySession.h"
#include "StopSignal.h"
#include "TextUtil.h"
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

    std::set<std::wstring> finished; // stored as completed or failed
    DownloadRequestSet stored;
    session.store()->loadAll(stored);
    for (DownloadRequest* r : stored) {
        if (r->getState() == qvdlm::state::Completed || r->getState() == qvdlm::state::Aborted)
            finished.insert(r->getId() ? r->getId() : L"");
        QvDLM::destroy(r);
    }
    manager->beginRestore();
    manager->restore();
    manager->endRestore();

    std::vector<Tracked> items;
    int refused = exitcode::Ok;
    for (Download* d : manager->getDownloads()) {
        DownloadRequest* request = d->getRequest();
        const std::wstring id = request->getId() ? request->getId() : L"";
        if (finished.count(id) || d->getState() == qvdlm::state::Completed)
            continue;
        const std::wstring label = request->getName() && *request->getName() ? request->getName() : id;
        if (d->getState() == qvdlm::state::Aborted) {
            // Restoring found it unusable: its server refuses it, or it is newer than this library.
            const std::wstring url = request->getUrl(false) ? request->getUrl(false) : id;
            const Failure f = refusedUrl(d->getStatus() == qvdlm::status::NewerRequestVersion ? qvdlm::validation::NewerRequestVersion
                                                                                               : qvdlm::validation::OpenFailure,
                                         url, session.events().lastLineAbout(url));
            console.error(label + L": failed: " + f.text + L"; \"qvdlm remove " + id + L"\" forgets it");
            refused = refused ? refused : f.exitCode;
            continue;
        }
        Tracked item;
        item.download = d;
        item.label = label;
        item.dest = parentFolder(request->getDestDir() ? request->getDestDir() : L"");
        item.startBytes = d->getDownloadedSize();
        items.push_back(item);
    }
    if (items.empty() && refused == exitcode::Ok) {
        console.line(L"nothing to resume");
        return exitcode::Ok;
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
    return refused != exitcode::Ok ? refused : status;
}

} // namespace qvcli
