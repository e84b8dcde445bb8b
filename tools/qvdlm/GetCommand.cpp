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

// The request for one URL, or null (reported) when the URL is unusable.
DownloadRequest* makeRequest(const Options& o, const std::wstring& url, const std::wstring& dest, Console& console)
{
    DownloadRequest* request = QvDLM::createDownloadRequest();
    if (!request) {
        console.error(L"out of memory");
        return nullptr;
    }
    // The parameter names must be known before setUrl: it makes the tokens from them.
    if (!o.authParam.empty())
        request->setAuthParamName(o.authParam.c_str());
    if (!o.sessionParam.empty())
        request->setSessionParamName(o.sessionParam.c_str());
    request->setUrl(url.c_str(), o.file.empty() ? nullptr : o.file.c_str(), nullptr);
    if (!request->getId() || !*request->getId() || request->getBlockCount() < 1) {
        console.error(L"not an http:// or https:// URL: " + url);
        QvDLM::destroy(request);
        return nullptr;
    }
    const std::wstring name = o.name.empty() ? nameFromUrlPath(request->getUrlPath() ? request->getUrlPath() : L"") : o.name;
    request->setName(name.empty() ? url.c_str() : name.c_str());
    request->setDestDir(dest.c_str());
    if (o.hasSaveInterval)
        request->setSaveInterval(o.saveInterval);
    if (o.akamai)
        request->setUseAkamai(true);
    if (o.size)
        request->setCompressedSize(o.size);
    if (o.unpackedSize)
        request->setUncompressedSize(o.unpackedSize);
    return request;
}

// Asks the manager whether the request can be fetched (trusted host, server answers with a size).
bool checkRequest(LibrarySession& session, DownloadRequest* request, const std::wstring& url, Console& console)
{
    const unsigned result = session.manager()->checkRequest(request);
    if (result == qvdlm::validation::Ok)
        return true;
    std::wstring reason;
    if (result == qvdlm::validation::AlreadyAdded) {
        reason = L"given twice";
    } else {
        const wchar_t* text = qvdlm::messageText(qvdlm::validationOutcome(result).message);
        reason = text && *text ? text : L"refused";
        if (result == qvdlm::validation::Forbidden)
            reason += L" (access forbidden)";
        else if (result == qvdlm::validation::NewerRequestVersion)
            reason += L" (the request is newer than this library)";
    }
    console.error(url + L": " + reason + L" [validation result " + std::to_wstring(result) + L"]");
    for (const std::wstring& line : session.events().linesAbout(request->getUrl(false) ? request->getUrl(false) : url))
        console.error(L"  " + line);
    return false;
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
    bool anyRefused = false;
    for (const std::wstring& url : o.urls) {
        DownloadRequest* request = makeRequest(o, url, dest, console);
        if (!request) {
            anyRefused = true;
            continue;
        }
        const std::wstring id = request->getId();
        if (session.store()->exists(id.c_str())) {
            console.error(url + L": already stored as " + id +
                          L"; \"qvdlm resume\" finishes it, \"qvdlm remove\" forgets it");
            QvDLM::destroy(request);
            anyRefused = true;
            continue;
        }
        if (!checkRequest(session, request, url, console)) {
            QvDLM::destroy(request);
            anyRefused = true;
            continue;
        }
        Tracked item;
        item.label = request->getName();
        item.url = request->getUrl(false) ? request->getUrl(false) : url;
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
            console.error(url + L": cannot prepare the download in " + dest +
                          (error ? L": " + systemErrorText(error) : std::wstring()));
            anyRefused = true;
            continue;
        }
        item.download = download;
        items.push_back(item);
    }

    stopSignal::install();
    for (Tracked& item : items) {
        console.line(L"get " + item.url + L" -> " + dest);
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
    return anyRefused && status == exitcode::Ok ? exitcode::Failed : status;
}

int exitStatusFor(const TransferSummary& summary, size_t downloads)
{
    if (summary.completed == downloads)
        return exitcode::Ok;
    if (summary.end != TransferEnd::Finished && summary.failed == 0)
        return exitcode::Stopped;
    return exitcode::Failed;
}

} // namespace qvcli
