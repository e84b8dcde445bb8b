#include "Transfers.h"

#include <windows.h>

#include <algorithm>

#include "StopSignal.h"
#include "common/PackagePath.h"
#include "TextUtil.h"

namespace qvcli {

namespace {

constexpr DWORD kTickMs = 100;
constexpr uint64_t kSampleMs = 250;

std::wstring seconds(uint64_t ms)
{
    wchar_t buffer[32];
    std::swprintf(buffer, std::size(buffer), L"%.1f s", static_cast<double>(ms) / 1000.0);
    return buffer;
}

std::wstring text(const wchar_t* value) { return value ? value : L""; }

} // namespace

uint64_t packageSize(DownloadRequest* request, uint64_t estimate, bool& estimated)
{
    estimated = false;
    if (const uint64_t size = request->getCompressedSize())
        return size;
    estimated = estimate != 0;
    return estimate;
}

std::wstring filesLocation(DownloadRequest* request)
{
    // The download worked in a folder of its own inside the chosen destination and moved its files up.
    std::wstring folder = parentFolder(text(request->getDestDir()));
    if (qv::isPackagePath(request->getUrlPath()))
        return folder;
    const std::wstring path = text(request->getUrlPath());
    const std::wstring file = path.substr(path.find_last_of(L'/') + 1);
    return file.empty() ? folder : folder + L"\\" + file;
}

std::wstring blockPrefix(int32_t block, int32_t count)
{
    if (count < 2)
        return {};
    return L"block " + std::to_wstring(std::min(block, count - 1) + 1) + L" of " + std::to_wstring(count) + L": ";
}

std::wstring storedProgress(DownloadRequest* r)
{
    const uint64_t size = r->getCompressedSize();
    if (r->getState() == qvdlm::state::Completed)
        return size ? formatBytes(size) : formatBytes(r->getUncompressedSize()) + L" unpacked";
    const uint64_t done = r->getTotalDownloadedSize() + r->getBlockDownloadedSize();
    if (const int tenths = percentTenths(done, size); tenths >= 0)
        return formatPercent(tenths) + L" (" + formatBytes(done) + L" of " + formatBytes(size) + L")";
    return formatBytes(done);
}

ProgressSnapshot Transfers::snapshot(Tracked& item, uint64_t nowMs)
{
    Download* d = item.download;
    DownloadRequest* request = d->getRequest();
    const uint32_t state = d->getState();
    const uint64_t downloaded = d->getDownloadedSize(), extracted = d->getExtractedSize();
    item.downloadSpeed.add(nowMs, downloaded);
    item.unpackSpeed.add(nowMs, extracted);

    ProgressSnapshot s;
    s.label = item.label;
    s.done = downloaded;
    s.total = packageSize(request, item.estimatedSize, s.totalEstimated);
    // An estimate gives way to the truth once it is known.
    if (s.totalEstimated && (s.done > s.total || state == qvdlm::state::Completed)) {
        s.total = s.done;
        s.totalEstimated = state != qvdlm::state::Completed;
    }
    // A package whose download is done while its files are still being extracted is unpacking.
    const bool unpacking = state == qvdlm::state::Play && qv::isPackagePath(request->getUrlPath()) &&
                           (request->isFinished() || (s.total && !s.totalEstimated && s.done >= s.total));
    s.state = item.outcome == Outcome::Stopped ? L"stopped" : stateWord(state, d->getStatus(), unpacking);
    if (unpacking) {
        s.done = extracted;
        s.total = request->getUncompressedSize();
        s.totalEstimated = false;
    }
    if (item.outcome == Outcome::Running && state == qvdlm::state::Play)
        s.bytesPerSecond = (unpacking ? item.unpackSpeed : item.downloadSpeed).bytesPerSecond();
    return s;
}

std::vector<ProgressSnapshot> Transfers::snapshots(std::vector<Tracked>& items, uint64_t nowMs)
{
    std::vector<ProgressSnapshot> out;
    for (Tracked& item : items)
        out.push_back(snapshot(item, nowMs));
    return out;
}

void Transfers::update(Tracked& item, uint64_t nowMs)
{
    Download* d = item.download;
    const uint32_t state = d->getState();
    item.outcome = classify(state, d->isRunning());
    if (state == qvdlm::state::Play || state == qvdlm::state::Paused) {
        item.block = d->getRequest()->getBlockId();
        item.blockUrl = text(d->getRequest()->getUrl(false));
    }
    if (item.outcome != Outcome::Paused) {
        item.pausedSinceMs = 0;
    } else if (item.pausedSinceMs == 0) {
        item.pausedSinceMs = nowMs;
    }

    if (item.outcome == Outcome::Paused && !item.gaveUp) {
        // Out of disk space does not mend itself; other pauses get time for the library's own retries.
        const bool hopeless = d->getStatus() == qvdlm::status::OutOfDiskSpace;
        if (hopeless || nowMs - item.pausedSinceMs > kPausedGraceMs) {
            item.gaveUp = true;
            manager_.control(d, qvdlm::command::StopKeep);
        }
    }
    if (item.outcome == Outcome::Waiting && item.gaveUp && !d->isRunning())
        item.outcome = Outcome::Failed;
}

void Transfers::stopAll(std::vector<Tracked>& items)
{
    for (Tracked& item : items)
        if (!isFinal(item.outcome))
            manager_.control(item.download, qvdlm::command::StopKeep);
    // Wait until every control thread has ended: checkpoints are written and the store is up to date.
    const uint64_t deadline = GetTickCount64() + kStopWaitMs;
    for (;;) {
        bool alive = false;
        for (Tracked& item : items)
            alive = alive || item.download->isRunning();
        if (!alive || GetTickCount64() > deadline)
            break;
        Sleep(kTickMs);
    }
    for (Tracked& item : items)
        item.outcome = classify(item.download->getState(), item.download->isRunning());
}

void Transfers::report(Tracked& item, uint64_t elapsedMs)
{
    Download* d = item.download;
    DownloadRequest* request = d->getRequest();
    const uint32_t status = d->getStatus();
    bool estimated = false;
    const uint64_t done = d->getDownloadedSize();
    const uint64_t size = packageSize(request, item.estimatedSize, estimated);
    switch (item.outcome) {
    case Outcome::Completed: {
        const uint64_t bytes = done > item.startBytes ? done - item.startBytes : 0;
        const uint64_t speed = elapsedMs ? bytes * 1000 / elapsedMs : 0;
        console_.line(item.label + L": completed, " + formatBytes(done) + L"; " + formatBytes(bytes) + L" in " +
                      seconds(elapsedMs) + L" (" + formatSpeed(speed) + L")");
        console_.line(L"  files in " + filesLocation(request));
        break;
    }
    case Outcome::Stopped:
    case Outcome::Paused:
    case Outcome::Waiting:
    case Outcome::Running: {
        std::wstring where = formatBytes(done);
        if (const int tenths = percentTenths(done, size); tenths >= 0 && !estimated)
            where = formatPercent(tenths) + L" (" + where + L" of " + formatBytes(size) + L")";
        std::wstring line = item.label + L": stopped at " + where;
        if (item.gaveUp)
            line += L", " + stateWord(qvdlm::state::Paused, status, false);
        console_.line(line + L"; \"qvdlm resume\" finishes it");
        break;
    }
    case Outcome::Failed: {
        // The validation of the block it stopped at names the URL and the server's answer.
        const std::wstring url = item.blockUrl.empty() ? text(request->getUrl(false)) : item.blockUrl;
        item.failure = failureFromValidationLine(events_.lastLineAbout(url));
        if (item.failure.exitCode == exitcode::Ok) {
            item.failure = failureOfDownload(status, d->getStreamError(), events_.lastMessage(d), item.dest);
            item.failure.text = url + L": " + item.failure.text;
        }
        console_.error(item.label + L": failed: " + blockPrefix(item.block, request->getBlockCount()) + item.failure.text);
        break;
    }
    }
}

TransferSummary Transfers::run(std::vector<Tracked>& items)
{
    TransferSummary summary;
    ProgressDisplay display(console_);
    const uint64_t started = GetTickCount64();
    uint64_t lastSample = 0;
    bool first = true;
    for (;;) {
        const uint64_t now = GetTickCount64();
        bool allFinal = true, anyRunning = false;
        uint64_t downloaded = 0;
        for (Tracked& item : items) {
            update(item, now);
            allFinal = allFinal && isFinal(item.outcome);
            anyRunning = anyRunning || item.outcome == Outcome::Running;
            const uint64_t done = item.download->getDownloadedSize();
            // A resumed download may rewind to its checkpoint, behind what the store said.
            item.startBytes = std::min(item.startBytes, done);
            downloaded += done;
        }
        if (allFinal)
            break;

        if (stopSignal::requested())
            summary.end = TransferEnd::Interrupted;
        else if (settings_.stopAfter && downloaded >= settings_.stopAfter)
            summary.end = TransferEnd::Interrupted;
        else if (settings_.timeoutSeconds && now - started >= settings_.timeoutSeconds * 1000ull)
            summary.end = TransferEnd::TimedOut;
        if (summary.end != TransferEnd::Finished) {
            // The terminal echoed "^C" where the console does not know it: start a clean line first.
            console_.restartLine();
            stopAll(items);
            break;
        }

        // Queued downloads start when another completes; when none is left running, start them here.
        if (!anyRunning)
            for (Tracked& item : items)
                if (item.outcome == Outcome::Waiting && !item.gaveUp) {
                    if (++item.starts > kMaxStarts)
                        item.gaveUp = true;
                    else
                        manager_.control(item.download, qvdlm::command::Start);
                }

        if (first || now - lastSample >= kSampleMs) {
            lastSample = now;
            display.show(snapshots(items, now), now);
        }
        first = false;
        Sleep(kTickMs);
    }

    summary.elapsedMs = GetTickCount64() - started;
    display.finish(snapshots(items, GetTickCount64()));
    if (summary.end == TransferEnd::Interrupted)
        console_.line(L"stopped; progress is kept");
    else if (summary.end == TransferEnd::TimedOut)
        console_.line(L"time limit reached; progress is kept");
    for (Tracked& item : items) {
        const uint64_t done = item.download->getDownloadedSize();
        summary.bytes += done > item.startBytes ? done - item.startBytes : 0;
        report(item, summary.elapsedMs);
        if (item.outcome == Outcome::Completed) {
            ++summary.completed;
        } else if (item.outcome == Outcome::Failed) {
            ++summary.failed;
            if (summary.firstFailure == exitcode::Ok)
                summary.firstFailure = item.failure.exitCode;
        } else if (item.gaveUp) {
            // Paused by the library for good: resumable, but a failure of this run.
            ++summary.failed;
            if (summary.firstFailure == exitcode::Ok)
                summary.firstFailure = item.download->getStatus() == qvdlm::status::OutOfDiskSpace ? exitcode::LocalFiles
                                                                                                 : exitcode::Network;
        } else {
            ++summary.stopped;
        }
    }
    return summary;
}

} // namespace qvcli
