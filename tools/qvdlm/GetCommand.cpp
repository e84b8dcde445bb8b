// qvdlm get: adds one download per URL through the manager, starts them and follows them to the end.
#include <cwchar>

#include "Commands.h"
#include "common/PackagePath.h"
#include "LibrarySession.h"
#include "StopSignal.h"
#include "TextUtil.h"
#include "Transfers.h"

namespace qvcli {

namespace {

// The request for one URL, or null (reported, with its exit status in failure) when the URL is unusable.
DownloadRequest* makeRequest(const Options& o, const std::wstring& url, const std::wstring& dest, Console& console,
                             int& failure)
{
    DownloadRequest* request = QvDLM::createDownloadRequest();
    if (!request) {
        console.error(L"out of memory");
        failure = exitcode::Failed;
        return nullptr;
    }
    // The parameter names must be known before setUrl: it makes the tokens from them.
    if (!o.authParam.empty())
        request->setAuthParamName(o.authParam.c_str());
    if (!o.sessionParam.empty())
        request->setSessionParamName(o.sessionParam.c_str());
    request->setUrl(url.c_str(), o.file.empty() ? nullptr : o.file.c_str(), nullptr);
    if (!request->getId() || !*request->getId() || request->getBlockCount() < 1) {
        console.error(url + L": not an http:// or https:// URL");
        failure = exitcode::Usage;
        QvDLM::destroy(request);
        return nullptr;
    }
    const std::wstring name = o.name.empty() ? nameFromUrlPath(request->getUrlPath() ? request->getUrlPath() : L"") : o.name;
    request->setName(name.empty() ? url.c_str() : name.c_str());
    request->setDestDir(dest.c_str());
    request->setSaveInterval(o.hasSaveInterval ? o.saveInterval : kDefaultSaveInterval);
    if (o.akamai)
        request->setUseAkamai(true);
    if (o.size)
        request->setCompressedSize(o.size);
    if (o.unpackedSize)
        request->setUncompressedSize(o.unpackedSize);
    return request;
}

// A stored request with the same ID: a completed or failed one is forgotten (the new download replaces
// it); one that can still be resumed is kept and the URL refused.
bool makeRoom(LibrarySession& session, const std::wstring& id, const std::wstring& url, Console& console)
{
    DownloadRequestLog* store = session.store();
    if (!store->exists(id.c_str()))
        return true;
    DownloadRequest* stored = QvDLM::createDownloadRequest();
    const bool loaded = stored && store->load(id.c_str(), stored);
    const uint32_t state = loaded ? stored->getState() : qvdlm::state::Paused;
    const bool replace = state == qvdlm::state::Completed || state == qvdlm::state::Aborted;
    if (replace) {
        store->remove(id.c_str());
        console.line(url + L": replaces its earlier " + storedStateWord(state) + L" download");
    } else {
        console.error(url + L": already stored, " + storedStateWord(state) + L" at " +
                      (loaded ? storedProgress(stored) + L" in " + parentFolder(stored->getDestDir() ? stored->getDestDir() : L"") : L"?") +
                      L"; \"qvdlm resume\" finishes it, \"qvdlm remove " + url + L"\" forgets it");
    }
    QvDLM::destroy(stored);
    return replace;
}

} // namespace

int runGet(const Options& o, Console& console)
{
    LibrarySession session(console);
    if (!session.openStore(o.storePath) || !session.openLog(o.logPath) || !session.openManager())
        return exitcode::Failed;
    DownloadMgr* manager = session.manager();
    if (o.maxActive > 0)
        manager->setMaxActive(o.maxActive);

    const std::wstring dest = absolutePath(o.dest.empty() ? L"." : o.dest);
    std::vector<Tracked> items;
    int refused = exitcode::Ok; // exit status of the first URL refused before its download started
    for (const std::wstring& url : o.urls) {
        int failure = exitcode::Failed;
        DownloadRequest* request = makeRequest(o, url, dest, console, failure);
        if (!request || !makeRoom(session, request->getId(), url, console)) {
            QvDLM::destroy(request);
            refused = refused ? refused : failure;
            continue;
        }
        // The manager checks that the host is trusted and that the server answers with a size.
        if (const unsigned result = manager->checkRequest(request); result != qvdlm::validation::Ok) {
            const std::wstring checked = request->getUrl(false) ? request->getUrl(false) : url;
            const Failure f = refusedUrl(result, checked, session.events().lastLineAbout(checked));
            console.error(f.text);
            QvDLM::destroy(request);
            refused = refused ? refused : f.exitCode;
            continue;
        }
        Tracked item;
        item.label = request->getName();
        item.dest = dest;
        // Validation read the size of the first block; a single block is the whole package.
        const uint64_t firstBlock = static_cast<uint64_t>(std::max<int64_t>(request->getContentLength(), 0));
        if (!request->getCompressedSize() && firstBlock) {
            if (request->getBlockCount() == 1)
                request->setCompressedSize(firstBlock);
            else
                item.estimatedSize = firstBlock * static_cast<uint64_t>(request->getBlockCount());
        }
        if (!request->getUncompressedSize() && !qv::isPackagePath(request->getUrlPath()))
            request->setUncompressedSize(request->getCompressedSize());

        SetLastError(0);
        Download* download = manager->addDownload(request);
        if (!download) {
            // Whether the request was already handed over is not known here: leave it rather than risk
            // releasing it twice.
            const DWORD error = GetLastError();
            const Failure f = failureToPrepare(error, dest, systemErrorText(error));
            console.error(url + L": " + f.text);
            refused = refused ? refused : f.exitCode;
            continue;
        }
        item.download = download;
        items.push_back(item);
    }

    stopSignal::install();
    for (Tracked& item : items) {
        console.line(L"get " + std::wstring(item.download->getRequest()->getId()) + L" -> " + dest);
        manager->startDownload(item.download);
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

int exitStatusFor(const TransferSummary& summary, size_t downloads)
{
    if (summary.completed == downloads)
        return exitcode::Ok;
    if (summary.failed > 0)
        return summary.firstFailure;
    return exitcode::Stopped;
}

} // namespace qvcli
