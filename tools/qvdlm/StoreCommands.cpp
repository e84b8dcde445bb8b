// qvdlm list and qvdlm remove: the stored requests.
#include <algorithm>

#include "Commands.h"
#include "Format.h"
#include "LibrarySession.h"
#include "Outcome.h"
#include "TextUtil.h"
#include "Transfers.h"

namespace qvcli {

namespace {

std::wstring text(const wchar_t* value) { return value ? value : L""; }

} // namespace

int runList(const Options& o, Console& console)
{
    LibrarySession session(console);
    if (!session.openStore(o.storePath))
        return exitcode::Failed;
    DownloadRequestSet loaded;
    session.store()->loadAll(loaded);
    std::vector<DownloadRequest*> requests(loaded.begin(), loaded.end());
    std::sort(requests.begin(), requests.end(),
              [](DownloadRequest* a, DownloadRequest* b) { return text(a->getId()) < text(b->getId()); });
    if (requests.empty())
        console.line(L"no stored downloads");
    for (DownloadRequest* r : requests) {
        console.line(text(r->getId()));
        const uint32_t state = r->getState();
        std::wstring line = L"    " + text(r->getName()) + L"; " + storedStateWord(state);
        if (state == qvdlm::state::Aborted)
            line += r->getStatus() ? L" (" + statusText(r->getStatus()) + L")" : L"";
        else
            line += (state == qvdlm::state::Completed ? L", " : L" at ") + storedProgress(r);
        console.line(line);
        if (state != qvdlm::state::Aborted) // a failed download's working folder is gone
            console.line(state == qvdlm::state::Completed ? L"    files in " + filesLocation(r)
                                                          : L"    working folder " + text(r->getDestDir()));
        QvDLM::destroy(r);
    }
    return exitcode::Ok;
}

int runRemove(const Options& o, Console& console)
{
    LibrarySession session(console);
    if (!session.openStore(o.storePath) || !session.openManager())
        return exitcode::Failed;
    DownloadMgr* manager = session.manager();
    manager->beginRestore();
    manager->restore();
    manager->endRestore();

    std::vector<Download*> downloads(manager->getDownloads().begin(), manager->getDownloads().end());
    std::vector<std::wstring> ids;
    for (Download* d : downloads)
        ids.push_back(text(d->getRequest()->getId()));
    const int found = findRequestId(ids, o.target);
    if (found == kAmbiguous) {
        console.error(L"\"" + o.target + L"\" names more than one stored download; give more of the ID");
        return exitcode::Failed;
    }
    if (found == kNoMatch) {
        console.error(L"no stored download has the ID \"" + o.target + L"\" (\"qvdlm list\" shows them)");
        return exitcode::Failed;
    }
    Download* d = downloads[static_cast<size_t>(found)];
    const std::wstring id = ids[static_cast<size_t>(found)];
    const bool completed = d->getState() == qvdlm::state::Completed;
    const std::wstring files = filesLocation(d->getRequest());
    if (!completed && d->getState() != qvdlm::state::Aborted) {
        // Throws away the partial files and checkpoints of a download that never finished.
        manager->control(d, qvdlm::command::AbortDiscard);
    }
    if (!manager->removeDownload(d)) {
        console.error(L"cannot remove " + id);
        return exitcode::Failed;
    }
    QvDLM::destroy(d);
    console.line(L"removed " + id + (completed ? L"; its files stay in " + files : L"; partial files deleted"));
    return exitcode::Ok;
}

} // namespace qvcli
