#include "control/DownloadMgrImp.h"

#include <windows.h>

#include <shlobj.h>
#include <shlwapi.h>

#include <algorithm>
#include <cwchar>
#include <cwctype>
#include <initializer_list>
#include <new>
#include <vector>

#include "Download.h"
#include "DownloadRequest.h"
#include "DownloadRequestLog.h"
#include "EventPublisher.h"
#include "QvDLMCodes.h"
#include "QvDLMFactory.h"
#include "control/DownloadImp.h"
#include "control/FolderOps.h"
#include "log/EventPublisherImpl.h"

using namespace qvdlm;

namespace {

constexpr size_t kMaxFolderLength = 247; // folders of this length or more leave no room for the working folder
constexpr int kMaxActiveLimit = 257;
constexpr uint64_t kSpaceMargin = 0x6400000; // 100 MiB kept free beyond what a download needs
constexpr wchar_t kPreferences[] = L"Preferences";
constexpr wchar_t kDefaultDestDirKey[] = L"DefaultDestDir";
constexpr DWORD kPathBuffer = 261;
constexpr DWORD kEndingRunWaitMs = 1000;

std::wstring textOf(const wchar_t* text) { return text ? text : L""; }

std::wstring lowerCase(std::wstring text)
{
    for (auto& c : text)
        c = static_cast<wchar_t>(std::towlower(c));
    return text;
}

bool inState(uint32_t s, std::initializer_list<uint32_t> states)
{
    for (uint32_t candidate : states)
        if (s == candidate)
            return true;
    return false;
}

bool hasEnded(uint32_t s)
{
    return inState(s, {state::Completed, state::Completing, state::Exiting, state::Aborting, state::Aborted});
}

std::wstring localAppDataRoot()
{
    wchar_t folder[MAX_PATH] = {};
    if (FAILED(SHGetFolderPathW(nullptr, CSIDL_LOCAL_APPDATA, nullptr, SHGFP_TYPE_CURRENT, folder)))
        return {};
    const int drive = PathGetDriveNumberW(folder);
    if (drive < 0)
        return {};
    return std::wstring(1, static_cast<wchar_t>(L'a' + drive)) + L":\\";
}

// A folder that the manager creates: the path with every missing level.
bool prepareFolder(const std::wstring& folder)
{
    if (folder.size() >= kMaxFolderLength) {
        SetLastError(ERROR_BUFFER_OVERFLOW);
        return false;
    }
    return qv::createFolderTree(folder);
}

} // namespace

DownloadMgrImp::DownloadMgrImp(const JobEnvironment& environment) : env_(environment)
{
    if (DownloadRequestLog* log = store())
        if (!log->getPath() || !*log->getPath())
            log->open(nullptr);
    EventPublisher::getInstance()->subscribe(this);
}

DownloadMgrImp::~DownloadMgrImp()
{
    // Downloads still running are thrown away, paused ones included; stopped and queued ones keep what
    // they have, so that a later restore finishes them. From here on no event of theirs starts another.
    {
        qv::CsLock hold(lock_);
        closing_ = true;
    }
    std::vector<Download*> running;
    for (Download* d : downloads_) {
        auto* job = dynamic_cast<DownloadImp*>(d);
        const bool alive = job ? job->controlThreadAlive() : d->isRunning();
        // A run that is ending by itself (a full disk leaves it paused on the way out) is let end.
        if (alive && job && !inState(d->getState(), {state::Pending, state::Init, state::Play}) &&
            job->waitForControlThread(kEndingRunWaitMs))
            continue;
        if (alive && d->abort(true))
            running.push_back(d);
    }
    for (Download* d : running)
        if (auto* job = dynamic_cast<DownloadImp*>(d))
            job->waitForControlThread(INFINITE);
    EventPublisher::getInstance()->unsubscribe(this);
    DownloadList owned;
    {
        qv::CsLock hold(lock_);
        owned.swap(downloads_);
        active_.clear();
    }
    for (Download* d : owned)
        QvDLM::destroy(d);
}

DownloadRequestLog* DownloadMgrImp::store() const { return env_.store ? env_.store() : nullptr; }

bool DownloadMgrImp::owns(Download* download)
{
    qv::CsLock hold(lock_);
    for (Download* d : downloads_)
        if (d == download)
            return true;
    return false;
}

void DownloadMgrImp::publishActiveCount()
{
    wchar_t text[64];
    swprintf(text, std::size(text), L"Active download counts = %d", static_cast<int>(active_.size()));
    publishText(nullptr, text, event::Information);
}

// ---- restore ----

void DownloadMgrImp::beginRestore() { restoring_ = true; }
void DownloadMgrImp::endRestore() { restoring_ = false; }

bool DownloadMgrImp::restore()
{
    DownloadRequestLog* log = store();
    if (!log)
        return false;
    DownloadRequestSet requests;
    log->loadAll(requests);
    if (requests.empty())
        return false;
    DownloadRequestIterator it(requests);
    bool added = false;
    while (it.hasNext()) {
        DownloadRequest* request = it.next();
        const uint32_t stored = request->getState();
        if (stored == state::Play) {
            const unsigned result = checkRequest(request);
            if ((result >= 1 && result <= 16) || result >= validation::NewerRequestVersion) {
                request->setState(state::Aborted);
                if (result == validation::NewerRequestVersion)
                    request->setStatus(status::NewerRequestVersion);
            } else {
                request->setState(state::Init);
            }
        } else if (stored == state::Completing) {
            request->setState(state::Completed);
        } else if (stored == state::Aborting) {
            request->setState(state::Aborted);
        }
        // A download that ended will not run again: its checkpoints are of no more use. (One that
        // failed its check above keeps them: it may still be started again, until it is removed.)
        const uint32_t now = request->getState();
        if (now == state::Completed || (now == state::Aborted && stored != state::Play)) {
            const std::wstring checkpointDir = textOf(request->getCheckpointDir());
            if (!checkpointDir.empty() && qv::folderExists(checkpointDir))
                qv::deleteTree(checkpointDir);
        }
        if (addDownload(request))
            added = true;
    }
    return added;
}

// ---- adding, starting, removing ----

Download* DownloadMgrImp::addDownload(DownloadRequest* request)
{
    if (!request)
        return nullptr;
    DownloadRequestLog* log = store();
    const std::wstring id = textOf(request->getId());
    const bool stored = log && !id.empty() && log->exists(id.c_str());
    std::wstring createdFolder; // the checkpoint folder made here, removed again when adding fails
    struct RemoveOnFailure {
        std::wstring& folder;
        ~RemoveOnFailure()
        {
            if (folder.empty())
                return;
            const DWORD error = GetLastError(); // the caller learns why adding failed
            qv::deleteTree(folder);
            SetLastError(error);
        }
    } removeOnFailure{createdFolder};
    if (!restoring_ && !stored) {
        std::wstring checkpointDir = textOf(request->getCheckpointDir());
        if (checkpointDir.empty()) {
            // No checkpoint folder chosen: one of our own beside the request store.
            const std::wstring storeFolder = qv::parentFolder(storeFile());
            wchar_t unique[32];
            swprintf(unique, std::size(unique), L"%08lX%08lX", GetTickCount(), GetCurrentProcessId());
            static std::atomic<unsigned> counter{0};
            checkpointDir = storeFolder + L"\\Checkpoints\\" + unique + std::to_wstring(++counter);
            request->setCheckpointDir(checkpointDir.c_str());
        }
        const bool existed = qv::folderExists(checkpointDir);
        if (!prepareFolder(checkpointDir))
            return nullptr;
        if (!existed)
            createdFolder = checkpointDir;
        const std::wstring destDir = textOf(request->getDestDir());
        if (!prepareFolder(destDir))
            return nullptr;
        // The download works in a fresh folder of the destination and moves its files up at the end.
        wchar_t working[MAX_PATH + 1] = {};
        if (!GetTempFileNameW(destDir.c_str(), L"QV_", 0, working))
            return nullptr;
        DeleteFileW(working);
        request->setDestDir(working);
    }

    // The store drops requests without a name when it loads them: give one that the client left out.
    if (!request->getName() || !*request->getName()) {
        const std::wstring file = qv::lastComponent(textOf(request->getUrlPath()));
        request->setName(file.empty() ? id.c_str() : file.c_str());
    }

    Download* download = makeDownload(request, this, env_);
    if (inState(download->getState(), {state::Pending, state::Init, state::Play, state::Paused}) &&
        !download->isPrepared() && !download->buildPipeline()) {
        QvDLM::destroy(download);
        return nullptr;
    }
    {
        qv::CsLock hold(lock_);
        downloads_.push_back(download);
    }
    createdFolder.clear();
    if (log)
        log->add(request);
    return download;
}

bool DownloadMgrImp::startDownload(Download* download)
{
    if (!download)
        return false;
    DownloadRequest* request = download->getRequest();
    const unsigned result = env_.validate ? static_cast<unsigned>(env_.validate(request)) : 0;
    if (result != 0 && !download->applyValidationResult(result))
        return false;

    qv::CsLock hold(lock_);
    if (static_cast<int>(active_.size()) < maxActive_) {
        if (!download->isPrepared() && !download->buildPipeline()) {
            if (download->getState() != state::Aborted)
                download->abort(false);
            download->setStatus(status::SetupFailed);
            publishEvent(download, event::Error, msg::GeneralError);
            return false;
        }
        if (DownloadRequestLog* log = store())
            log->add(request);
        if (download->start()) {
            active_.insert(download);
            publishActiveCount();
            return true;
        }
    }
    download->setPending();
    return false;
}

bool DownloadMgrImp::removeDownload(Download* download)
{
    if (!download || !owns(download))
        return false;
    publishEvent(download, event::StateChange, state::Removed);
    if (DownloadRequestLog* log = store())
        if (const wchar_t* id = download->getRequest()->getId())
            log->remove(id);
    qv::CsLock hold(lock_);
    downloads_.remove(download);
    active_.erase(download);
    // An ended download that leaves the manager never starts again: its checkpoints go with it, unless
    // another download still works from the same folder.
    const std::wstring checkpointDir = textOf(download->getRequest()->getCheckpointDir());
    if (checkpointDir.empty() || !inState(download->getState(), {state::Completed, state::Aborted}) ||
        download->isRunning())
        return true;
    for (Download* other : downloads_)
        if (lowerCase(textOf(other->getRequest()->getCheckpointDir())) == lowerCase(checkpointDir))
            return true;
    if (qv::folderExists(checkpointDir))
        qv::deleteTree(checkpointDir);
    return true;
}

// ---- commands ----

bool DownloadMgrImp::control(Download* download, unsigned command)
{
    qv::CsLock hold(lock_);
    if (!download) {
        bool all = true;
        const DownloadList snapshot = downloads_;
        for (Download* d : snapshot) {
            const uint32_t s = d->getState();
            if ((command == command::Start && s != state::Pending) || (command == command::Pause && s != state::Play))
                continue;
            if (!applyCommand(d, command))
                all = false;
        }
        return all;
    }
    if (!owns(download) || command < command::Start || command > command::StopKeep)
        return true;
    return applyCommand(download, command);
}

bool DownloadMgrImp::applyCommand(Download* d, unsigned command)
{
    const uint32_t s = d->getState();
    switch (command) {
    case command::Start:
        return inState(s, {state::Pending, state::Init, state::Aborted}) ? startProcedure(d) : true;
    case command::Pause:
        d->setHoldFlag(true);
        return inState(s, {state::Pending, state::Init, state::Play}) ? d->pause() : true;
    case command::Resume:
        return s == state::Paused ? startProcedure(d) : true;
    case command::AbortDiscard:
        return hasEnded(s) ? true : d->abort(true);
    case command::Reinit:
        if (!inState(s, {state::Pending, state::Play, state::Paused}))
            return true;
        return d->isPrepared() ? d->reinit() : d->buildPipeline();
    case command::Remove:
        return inState(s, {state::Completed, state::Aborted}) ? removeDownload(d) : true;
    case command::StopKeep:
        if (s == state::Play)
            d->pause();
        return hasEnded(s) ? true : d->abort(false);
    default:
        return true;
    }
}

bool DownloadMgrImp::startProcedure(Download* d)
{
    const uint64_t shortfall = shortfallFor(d->getRequest());
    if (shortfall == kAllOnes) {
        publishEvent(d, event::Error, msg::GeneralError);
        d->setStatus(status::GeneralError);
        return false;
    }
    if (shortfall != 0) {
        d->pause();
        publishEvent(d, event::StatusMessage, msg::OutOfDiskSpace);
        d->setStatus(status::OutOfDiskSpace);
        return false;
    }
    if (!d->isRunning()) {
        if (restoring_ && d->getState() != state::Init)
            return true;
        return startDownload(d);
    }
    if (static_cast<int>(active_.size()) < maxActive_) {
        const bool resumed = d->resume();
        active_.insert(d);
        publishActiveCount();
        return resumed;
    }
    d->setPending();
    return false;
}

// ---- events ----

void DownloadMgrImp::notify(const EventRecord* record)
{
    if (!record || !record->source)
        return;
    qv::CsLock hold(lock_);
    Download* d = record->source;
    if (closing_ || !owns(d))
        return;
    switch (record->kind) {
    case event::StateChange: {
        const auto next = static_cast<uint32_t>(record->value);
        if (!inState(next, {state::Completed, state::Pending, state::Paused, state::Exiting, state::Aborting,
                             state::Aborted}))
            return;
        if (!restoring_) {
            active_.erase(d);
            publishActiveCount();
        }
        if (next == state::Completed)
            control(nullptr, command::Start);
        return;
    }
    case event::StatusMessage: {
        const auto message = static_cast<uint32_t>(record->value);
        const uint32_t s = d->getState();
        switch (message) {
        case msg::NetworkDisconnected:
        case msg::ServerNotResponse:
        case msg::NetworkError:
            d->setStatus(statusForMessage(message));
            return;
        case msg::NetworkConnecting:
            d->setStatus(status::NetworkReconnecting);
            if (s == state::Play)
                control(d, command::Reinit);
            return;
        case msg::NetworkConnected:
            d->setStatus(status::None);
            if (s == state::Paused)
                control(d, command::Resume);
            else if (const unsigned thread = d->getThreadId())
                PostThreadMessageW(thread, command::Resume, 0, 0);
            return;
        case msg::RestoreFailed:
            // The download starts the run again from the beginning by itself; what its checkpoints and
            // working folder hold is never thrown away for a checkpoint that could not be read.
            d->setStatus(status::RestoreFailed);
            return;
        default:
            return;
        }
    }
    case event::Error:
        control(d, command::AbortDiscard);
        return;
    default:
        return;
    }
}

// ---- queries ----

bool DownloadMgrImp::anyRunning()
{
    qv::CsLock hold(lock_);
    for (Download* d : downloads_) {
        if (auto* job = dynamic_cast<DownloadImp*>(d)) {
            if (job->controlThreadAlive())
                return true;
            continue;
        }
        DWORD code = 0;
        if (HANDLE thread = d->getThreadHandle(); thread && GetExitCodeThread(thread, &code) && code == STILL_ACTIVE)
            return true;
    }
    return false;
}

const DownloadList& DownloadMgrImp::getDownloads() { return downloads_; }

unsigned DownloadMgrImp::countInState(unsigned s)
{
    qv::CsLock hold(lock_);
    unsigned count = 0;
    for (Download* d : downloads_)
        if (d->getState() == s)
            ++count;
    return count;
}

void DownloadMgrImp::setMaxActive(int count)
{
    if (count < kMaxActiveLimit)
        maxActive_ = count;
}

int DownloadMgrImp::compareVersions(const wchar_t* left, const wchar_t* right)
{
    auto parts = [](const wchar_t* text) {
        std::vector<unsigned long> numbers(4, 0);
        const wchar_t* p = text ? text : L"";
        for (size_t i = 0; i < numbers.size() && *p; ++i) {
            wchar_t* end = nullptr;
            numbers[i] = std::wcstoul(p, &end, 10);
            p = end;
            while (*p && *p != L'.')
                ++p;
            if (*p == L'.')
                ++p;
        }
        return numbers;
    };
    const auto a = parts(left);
    const auto b = parts(right);
    for (size_t i = 0; i < a.size(); ++i)
        if (a[i] != b[i])
            return a[i] < b[i] ? -1 : 1;
    return 0;
}

unsigned DownloadMgrImp::checkRequest(DownloadRequest* request)
{
    if (!request)
        return validation::OpenFailure;
    const std::wstring id = textOf(request->getId());
    {
        qv::CsLock hold(lock_);
        for (Download* d : downloads_)
            if (textOf(d->getRequest()->getId()) == id)
                return validation::AlreadyAdded;
    }
    if (compareVersions(request->getVersion(), kRequestVersion) > 0)
        return validation::NewerRequestVersion;
    return env_.validate ? static_cast<unsigned>(env_.validate(request)) : validation::Ok;
}

bool DownloadMgrImp::hasDownload(const wchar_t* identifier)
{
    if (!identifier)
        return false;
    std::wstring prefix = identifier;
    if (const size_t query = prefix.find(L'?'); query != std::wstring::npos)
        prefix.resize(query + 1);
    qv::CsLock hold(lock_);
    for (Download* d : downloads_)
        if (textOf(d->getRequest()->getId()).rfind(prefix, 0) == 0)
            return true;
    return false;
}

bool DownloadMgrImp::isEmpty()
{
    qv::CsLock hold(lock_);
    return downloads_.empty();
}

// ---- default destination ----

std::wstring DownloadMgrImp::storeFile()
{
    if (DownloadRequestLog* log = store())
        if (const wchar_t* path = log->getPath(); path && *path)
            return path;
    wchar_t folder[MAX_PATH] = {};
    if (FAILED(SHGetFolderPathW(nullptr, CSIDL_LOCAL_APPDATA, nullptr, SHGFP_TYPE_CURRENT, folder)))
        return {};
    return std::wstring(folder) + L"\\Quorvel\\Tarnwick\\download.info";
}

unsigned DownloadMgrImp::getDefaultDestDir(wchar_t* buffer, int size)
{
    const std::wstring file = storeFile();
    if (file.empty())
        return 0xFFFFFFFF;
    if (!qv::fileExists(file)) {
        qv::createFolderTree(qv::parentFolder(file));
        qv::UniqueFile created(
            CreateFileW(file.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
        if (created) {
            static const unsigned char bom[2] = {0xFF, 0xFE};
            DWORD written = 0;
            WriteFile(created.get(), bom, sizeof(bom), &written, nullptr);
        }
    }
    wchar_t value[kPathBuffer] = {};
    GetPrivateProfileStringW(kPreferences, kDefaultDestDirKey, L"", value, kPathBuffer, file.c_str());
    std::wstring dir = value;
    if (dir.empty()) {
        wchar_t drive[MAX_PATH] = {};
        GetEnvironmentVariableW(L"SystemDrive", drive, MAX_PATH);
        dir = std::wstring(drive) + L"\\Quorvel";
        WritePrivateProfileStringW(kPreferences, kDefaultDestDirKey, dir.c_str(), file.c_str());
    }
    if (!buffer || size < 0 || static_cast<size_t>(size) < dir.size() + 1)
        return 0xFFFFFFFF;
    wcsncpy_s(buffer, static_cast<size_t>(size), dir.c_str(), _TRUNCATE);
    return static_cast<unsigned>(dir.size());
}

bool DownloadMgrImp::setDefaultDestDir(const wchar_t* dir)
{
    const std::wstring file = storeFile();
    if (file.empty() || !dir)
        return false;
    return WritePrivateProfileStringW(kPreferences, kDefaultDestDirKey, dir, file.c_str()) != 0;
}

// ---- disk space ----

uint64_t DownloadMgrImp::shortfallOn(const wchar_t* path, uint64_t need)
{
    const int drive = path ? PathGetDriveNumberW(path) : -1;
    if (drive < 0)
        return kAllOnes;
    const wchar_t root[4] = {static_cast<wchar_t>(L'A' + drive), L':', L'\\', L'\0'};
    if (GetFileAttributesW(root) == INVALID_FILE_ATTRIBUTES)
        return kAllOnes;
    ULARGE_INTEGER available{};
    if (!GetDiskFreeSpaceExW(root, &available, nullptr, nullptr))
        return 0;
    return available.QuadPart < need ? need - available.QuadPart : 0;
}

unsigned DownloadMgrImp::checkDiskSpace(DownloadRequest* request)
{
    // The answer is 32 bits wide: larger shortfalls saturate below the all-ones mark of a missing volume.
    const uint64_t shortfall = shortfallFor(request);
    if (shortfall == kAllOnes)
        return 0xFFFFFFFFu;
    return static_cast<unsigned>(std::min<uint64_t>(shortfall, 0xFFFFFFFEu));
}

uint64_t DownloadMgrImp::shortfallFor(DownloadRequest* request)
{
    if (!request)
        return 0;
    const uint64_t uncompressed = request->getUncompressedSize();
    const uint64_t extracted = request->getExtractedSize();
    if (uncompressed == 0 || extracted >= uncompressed)
        return 0;
    const uint64_t remaining = uncompressed - extracted;
    const std::wstring dest = textOf(request->getDestDir());
    uint64_t shortfall = 0;
    const bool downloadedAny = request->getTotalDownloadedSize() + request->getBlockDownloadedSize() > 0;
    if (request->getState() == state::Play || downloadedAny || !request->getUseAkamai()) {
        shortfall = shortfallOn(dest.c_str(), remaining + kSpaceMargin);
    } else {
        const std::wstring root = localAppDataRoot();
        if (!root.empty() && lowerCase(dest).rfind(root, 0) == 0) {
            shortfall = shortfallOn(dest.c_str(), remaining + kSpaceMargin + request->getCompressedSize());
        } else {
            if (!root.empty() && shortfallOn(root.c_str(), request->getCompressedSize()) != 0)
                request->setUseAkamai(false);
            shortfall = shortfallOn(dest.c_str(), remaining + kSpaceMargin);
        }
    }
    wchar_t text[1024];
    swprintf(text, std::size(text),
             L"Downloading %ls\r\n\t\t\t\t\t\tCompressed size is %lld\r\n\t\t\t\t\t\tUncompressed size is %lld. "
             L"extraRequiredSpace: %lld",
             textOf(request->getId()).c_str(), static_cast<long long>(request->getCompressedSize()),
             static_cast<long long>(uncompressed), static_cast<long long>(shortfall));
    publishText(nullptr, text, event::Information);
    return shortfall;
}

void DownloadMgrImp::pauseForDiskSpace()
{
    qv::CsLock hold(lock_);
    const DownloadList snapshot = downloads_;
    for (Download* d : snapshot) {
        if (d->getState() != state::Play)
            continue;
        const uint64_t shortfall = shortfallFor(d->getRequest());
        if (shortfall == 0 || shortfall == kAllOnes)
            continue;
        control(d, command::Pause);
        publishEvent(d, event::StatusMessage, msg::OutOfDiskSpace);
        d->setStatus(status::OutOfDiskSpace);
    }
}

uint64_t DownloadMgrImp::getPendingSpace(const wchar_t* path)
{
    const int drive = path ? PathGetDriveNumberW(path) : -1;
    uint64_t pending = 0;
    qv::CsLock hold(lock_);
    for (Download* d : downloads_) {
        DownloadRequest* request = d->getRequest();
        const uint32_t s = d->getState();
        if (s != state::Pending && s != state::Play)
            continue;
        if (PathGetDriveNumberW(textOf(request->getDestDir()).c_str()) != drive)
            continue;
        const uint64_t done = request->getTotalDownloadedSize() + request->getBlockDownloadedSize();
        const uint64_t size = request->getUncompressedSize();
        if (size > done)
            pending += size - done;
    }
    return pending;
}

DownloadMgr* QvDLM::createDownloadMgr() { return new (std::nothrow) DownloadMgrImp(defaultJobEnvironment()); }
