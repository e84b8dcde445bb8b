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

} // namespace

uint64_t packageSize(Download* download, uint64_t estimate, bool& estimated)
{
    estimated = false;
    if (const uint64_t size = download->getRequest()->getCompressedSize())
        return size;
    estimated = estimate != 0;
    return estimate;
}

std::wstring filesLocation(Download* download)
{
    DownloadRequest* request = download->getRequest();
    // The download worked in a folder of its own inside the chosen destination and moved its files up.
    std::wstring folder = parentFolder(request->getDestDir() ? request->getDestDir() : L"");
    if (qv::isPackagePath(request->getUrlPath()))
        return folder;
    const std::wstring path = request->getUrlPath() ? request->getUrlPath() : L"";
    const size_t slash = path.find_last_of(L'/');
    const std::wstring file = slash == std::wstring::npos ? path : path.substr(slash + 1);
    return file.empty() ? folder : folder + L"\\" + file;
}

ProgressSnapshot Transfers::snapshot(Tracked& item, bool sample)
{
    Download* d = item.download;
    ProgressSnapshot s;
    s.label = item.label;
    s.done = d->getDownloadedSize();
    s.total = packageSize(d, item.estimatedSize, s.totalEstimated);
    // An estimate gives way to the truth once it is known.
    if (s.totalEstimated && (s.done > s.total || d->getState() == qvdlm::state::Completed))
        s.total = s.done;
    if (item.outcome == Outcome::Running && d->getState() == qvdlm::state::Play) {
        if (Stats* stats = d->getStats()) {
            // Asking for the time left is what takes a speed sample.
            if (sample)
                s.etaSeconds = stats->getRemainingSeconds();
            s.bitsPerSecond = stats->getDownloadSpeed();
        }
    }
    s.stateText = describe(d->getState(), d->getStatus());
    return s;
}

void Transfers::update(Tracked& item, uint64_t nowMs)
{
    Download* d = item.download;
    const uint32_t state = d->getState();
    item.outcome = classify(state, d->isRunning());
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

void Transfers::report(const Tracked& item, uint64_t elapsedMs)
{
    Download* d = item.download;
    const uint32_t state = d->getState(), status = d->getStatus();
    bool estimated = false;
    const uint64_t done = d->getDownloadedSize();
    const uint64_t size = packageSize(d, item.estimatedSize, estimated);
    switch (item.outcome) {
    case Outcome::Completed: {
        const uint64_t bytes = done > item.startBytes ? done - item.startBytes : 0;
        const uint64_t rate = elapsedMs ? bytes * 8000 / elapsedMs : 0;
        console_.line(item.label + L": " + describe(state, status) + L", " + formatBytes(done) + L"; " +
                      formatBytes(bytes) + L" in " + seconds(elapsedMs) + L" (" + formatRate(rate) + L")");
        console_.line(L"  files in " + filesLocation(d));
        break;
    }
    case Outcome::Stopped:
    case Outcome::Paused:
    case Outcome::Waiting:
    case Outcome::Running: {
        std::wstring where = formatBytes(done);
        if (const int tenths = percentTenths(done, size); tenths >= 0 && !estimated)
            where = formatPercent(tenths) + L" (" + where + L")";
        std::wstring line = item.label + L": stopped at " + where;
        if (status != qvdlm::status::None)
            line += L", " + statusText(status);
        console_.line(line + L"; \"qvdlm resume\" finishes it");
        break;
    }
    case Outcome::Failed: {
        std::wstring line = item.label + L": " + describe(state, status);
        // The status message the download reported last says more than a general status.
        if (const uint32_t message = events_.lastMessage(d); message) {
            const wchar_t* text = qvdlm::messageText(message);
            if (text && *text && line.find(text) == std::wstring::npos)
                line += std::wstring(L"; ") + text;
        }
        console_.line(line);
        for (const std::wstring& l : events_.linesAbout(item.url))
            console_.line(L"  " + l);
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

        const bool sample = first || now - lastSample >= kSampleMs;
        if (sample) {
            lastSample = now;
            std::vector<ProgressSnapshot> snapshots;
            for (Tracked& item : items)
                snapshots.push_back(snapshot(item, true));
            display.show(snapshots, now);
        }
        first = false;
        Sleep(kTickMs);
    }

    summary.elapsedMs = GetTickCount64() - started;
    std::vector<ProgressSnapshot> snapshots;
    for (Tracked& item : items)
        snapshots.push_back(snapshot(item, false));
    display.finish(snapshots);
    if (summary.end == TransferEnd::Interrupted)
        console_.line(L"stopped; progress is kept");
    else if (summary.end == TransferEnd::TimedOut)
        console_.line(L"time limit reached; progress is kept");
    for (Tracked& item : items) {
        const uint64_t done = item.download->getDownloadedSize();
        summary.bytes += done > item.startBytes ? done - item.startBytes : 0;
        report(item, summary.elapsedMs);
        if (item.outcome == Outcome::Completed)
            ++summary.completed;
        else if (item.outcome == Outcome::Failed)
            ++summary.failed;
        else
            ++summary.stopped;
    }
    return summary;
}

} // namespace qvcli
