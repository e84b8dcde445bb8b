#include "log/LogImp.h"

#include <shlwapi.h>

#include <iterator>
#include <new>
#include <utility>

#include "Download.h"
#include "DownloadRequest.h"
#include "EventPublisher.h"
#include "QvDLMCodes.h"
#include "QvDLMFactory.h"
#include "log/EventPublisherImpl.h"
#include "Stats.h"

namespace {

constexpr wchar_t kResourceModule[] = L"QvDLMRes.dll";
constexpr wchar_t kTempPrefix[] = L"QV_";

constexpr wchar_t kInfo[] = L"INFO";
constexpr wchar_t kWarning[] = L"WARNING";
constexpr wchar_t kError[] = L"ERROR";
constexpr wchar_t kDebug[] = L"DEBUG";
constexpr wchar_t kState[] = L"State";
constexpr wchar_t kStatus[] = L"Status";

// An entry starts in a buffer of this many characters, which doubles while the text does not fit,
// up to a bound that no sane entry reaches.
constexpr size_t kFirstCapacity = 255;
constexpr size_t kMaxCapacity = kFirstCapacity << 14;

// Status messages that report a failure; a status event with one of them is logged as an error.
constexpr uint32_t kFailureMessages[] = {
    qvdlm::msg::OpenFailure,      qvdlm::msg::NetworkDisconnected, qvdlm::msg::ServerNotResponse,
    qvdlm::msg::NetworkError,     qvdlm::msg::OutOfDiskSpace,      qvdlm::msg::DecompressFailed,
    qvdlm::msg::UnpackageFailed,  qvdlm::msg::ProxyNeedAuthentication, qvdlm::msg::RestoreFailed,
    qvdlm::msg::GeneralError,     qvdlm::msg::AkamaiFallback,
};

bool isFailureMessage(uint32_t id)
{
    for (uint32_t failure : kFailureMessages)
        if (failure == id)
            return true;
    return false;
}

// Only the low 32 bits of the address: enough to tell the downloads of one log apart.
uint32_t sourceIdOf(const Download* source)
{
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(source));
}

const wchar_t* orEmpty(const wchar_t* text) { return text ? text : L""; }

const wchar_t* messageTextOrEmpty(uint32_t id) { return orEmpty(qvdlm::messageText(id)); }

uint32_t messageIdOf(uint64_t value) { return static_cast<uint32_t>(value & 0xFFFF); }

// An event value is either a text pointer or, when bits 16..31 are clear, a message number.
// An error event's value is a number unless it is a text that this library is publishing right now:
// error numbers (a delivery session's, say) may well have bits 16 to 31 set.
const wchar_t* valueText(uint32_t kind, uint64_t value)
{
    if (kind == qvdlm::event::Error && !isPublishedText(value))
        return messageTextOrEmpty(messageIdOf(value));
    if (qvdlm::eventValueIsText(value))
        return orEmpty(reinterpret_cast<const wchar_t*>(static_cast<uintptr_t>(value)));
    return messageTextOrEmpty(messageIdOf(value));
}

} // namespace

Log* QvDLM::createLog(const wchar_t* path)
{
    LogImp* log = new (std::nothrow) LogImp();
    if (!log)
        return nullptr;
    try {
        EventPublisher::getInstance()->subscribe(log);
    } catch (...) {
        delete log;
        return nullptr;
    }
    if (!log->open(path)) {
        delete log; // unsubscribes
        return nullptr;
    }
    return log;
}

LogImp::~LogImp()
{
    EventPublisher::getInstance()->unsubscribe(this);
}

bool LogImp::open(const wchar_t* path)
{
    qv::CsLock hold(lock_);
    file_.reset();
    resourceModule_ = nullptr;

    wchar_t tempPath[MAX_PATH] = {};
    if (!path) {
        wchar_t tempName[MAX_PATH] = {};
        const DWORD length = GetTempPathW(MAX_PATH, tempPath);
        if (length == 0 || length >= MAX_PATH)
            return false;
        if (GetTempFileNameW(tempPath, kTempPrefix, 0, tempName) == 0)
            return false;
        if (!PathAppendW(tempPath, tempName))
            return false;
        path = tempPath;
    }

    qv::UniqueFile file(CreateFileW(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        return false;
    LARGE_INTEGER zero = {};
    if (!SetFilePointerEx(file.get(), zero, nullptr, FILE_END))
        return false;
    file_ = std::move(file);

    writeEntry(L"=== Logging started ===\r\n");

    // The module is the client's to load; a log is only handed out where it is present.
    resourceModule_ = GetModuleHandleW(kResourceModule);
    if (!resourceModule_) {
        file_.reset();
        return false;
    }
    return true;
}

void LogImp::notify(const EventRecord* record)
{
    if (!record)
        return;
    Download* source = record->source;
    const uint32_t sourceId = sourceIdOf(source);
    const Subject subject = subjectOf(source);
    // A state change carries a state code, which must never be read as a text pointer.
    const wchar_t* text = record->kind == qvdlm::event::StateChange ? L"" : valueText(record->kind, record->value);

    switch (record->kind) {
    case qvdlm::event::Progress:
        writeMessageLine(sourceId, subject, kDebug, L"", text, L"");
        writeProgressLines(source, sourceId);
        break;
    case qvdlm::event::StateChange:
        writeStateLine(source, sourceId, subject);
        break;
    case qvdlm::event::StatusMessage:
        writeStatusLine(record->value, sourceId, subject);
        break;
    case qvdlm::event::Information:
        writeMessageLine(sourceId, subject, kInfo, L"", text, L"");
        if (!qvdlm::eventValueIsText(record->value) && messageIdOf(record->value) == qvdlm::msg::DownloadCompleted)
            writeTransferSummary(source, sourceId);
        break;
    case qvdlm::event::Warning:
        writeMessageLine(sourceId, subject, kWarning, L"", text, L"");
        break;
    case qvdlm::event::Error:
        writeMessageLine(sourceId, subject, kError, L"", text, L"");
        break;
    default:
        writeMessageLine(sourceId, subject, kDebug, L"", text, L"");
        break;
    }

    if (source)
        writeEntry(L"0x%08x\t    _Status: 0x%08x\r\n", sourceId, source->getStatus());
}

LogImp::Subject LogImp::subjectOf(Download* source)
{
    Subject subject;
    DownloadRequest* request = source ? source->getRequest() : nullptr;
    if (request) {
        subject.lead = L" for ";
        subject.name = orEmpty(request->getName());
        subject.open = L" (";
        subject.url = orEmpty(request->getUrl(false));
        subject.close = L")";
    }
    return subject;
}

void LogImp::writeMessageLine(uint32_t sourceId, const Subject& subject, const wchar_t* level, const wchar_t* before,
                              const wchar_t* text, const wchar_t* after)
{
    writeEntry(L"0x%08x\t%ls:\t %ls%ls%ls%ls%ls%ls%ls%ls\r\n", sourceId, level, before, text, after, subject.lead,
               subject.name, subject.open, subject.url, subject.close);
}

void LogImp::writeStateLine(Download* source, uint32_t sourceId, const Subject& subject)
{
    // The download is asked for its state: by the time the event is logged it may have moved on.
    if (!source)
        return;
    const uint32_t current = source->getState();
    const wchar_t* name = qvdlm::stateName(current);
    if (!name)
        return;
    const uint32_t code = source->getStatus();

    if (current == qvdlm::state::Paused) {
        const uint32_t message = qvdlm::messageForStateStatus(current, code);
        if (message != 0) {
            writeMessageLine(sourceId, subject, kError, L"download error (", messageTextOrEmpty(message), L")");
            return;
        }
    } else if (current == qvdlm::state::Aborted) {
        if (code != 0 || source->getStreamError() != 0) {
            uint32_t message = qvdlm::messageForStateStatus(current, code);
            if (message == 0) // aborted on a stream error alone
                message = qvdlm::msg::GeneralError;
            writeMessageLine(sourceId, subject, kError, L"download aborted (", messageTextOrEmpty(message), L")");
            return;
        }
    }
    writeMessageLine(sourceId, subject, kState, L"", name, L"");
}

void LogImp::writeStatusLine(uint64_t value, uint32_t sourceId, const Subject& subject)
{
    if (!qvdlm::eventValueIsText(value) && isFailureMessage(messageIdOf(value))) {
        writeMessageLine(sourceId, subject, kError, L"download error (", valueText(qvdlm::event::StatusMessage, value), L")");
        return;
    }
    writeMessageLine(sourceId, subject, kStatus, L"", valueText(qvdlm::event::StatusMessage, value), L"");
}

void LogImp::writeProgressLines(Download* source, uint32_t sourceId)
{
    DownloadRequest* request = source ? source->getRequest() : nullptr;
    if (!request)
        return;
    writeEntry(L"0x%08x\tDEBUG:\tBlock ID:\t%d\r\n", sourceId, static_cast<int>(request->getBlockId()));
    writeEntry(L"0x%08x\tDEBUG:\tBlock Downloaded Bytes:\t%llu\r\n", sourceId,
               static_cast<unsigned long long>(request->getBlockDownloadedSize()));
    writeEntry(L"0x%08x\tDEBUG:\tTotal Downloaded Bytes:\t%llu\r\n", sourceId,
               static_cast<unsigned long long>(request->getTotalDownloadedSize()));
    writeEntry(L"0x%08x\tDEBUG:\tExtracted Bytes:\t%llu\r\n", sourceId,
               static_cast<unsigned long long>(request->getExtractedSize()));
    writeEntry(L"0x%08x\tDEBUG:\tLast Status:\t%d\r\n", sourceId, static_cast<int>(request->getStatus()));
    writeEntry(L"0x%08x\tDEBUG:\tLast State:\t%llu\r\n\r\n", sourceId,
               static_cast<unsigned long long>(request->getState()));
}

void LogImp::writeTransferSummary(Download* source, uint32_t sourceId)
{
    Stats* stats = source ? source->getStats() : nullptr;
    if (!stats)
        return;
    // Printed as signed 32-bit figures, as the log always has.
    writeEntry(L"0x%08x\tINFO:\tDownload elapsed time:\t%d seconds\r\n", sourceId,
               static_cast<int>(stats->getElapsedSeconds()));
    writeEntry(L"0x%08x\tINFO:\tTotal downloaded data:\t%llu bytes\r\n", sourceId,
               static_cast<unsigned long long>(stats->getDownloadedSize()));
    writeEntry(L"0x%08x\tINFO:\tDownload speed:\t%d bits/s\r\n", sourceId, static_cast<int>(stats->getAverageSpeed()));
}

void LogImp::writeEntry(const wchar_t* format, ...)
{
    va_list args;
    va_start(args, format);
    writeEntryV(format, args);
    va_end(args);
}

void LogImp::writeEntryV(const wchar_t* format, va_list args)
{
    qv::CsLock hold(lock_);
    if (!file_)
        return;

    SYSTEMTIME now;
    GetLocalTime(&now);
    wchar_t stamp[64];
    const int stampLength = _snwprintf_s(stamp, std::size(stamp), _TRUNCATE, L"%d/%d/%d:%02d:%02d:%02d\t", now.wYear,
                                         now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond);
    if (stampLength < 0)
        return;

    wchar_t first[kFirstCapacity];
    qv::HeapBlock grown;
    wchar_t* buffer = first;
    size_t capacity = kFirstCapacity;
    int length = -1;
    for (;;) {
        va_list attempt;
        va_copy(attempt, args);
        length = _vsnwprintf_s(buffer, capacity, _TRUNCATE, format, attempt);
        va_end(attempt);
        if (length >= 0)
            break;
        if (capacity >= kMaxCapacity)
            return;
        capacity *= 2;
        grown = qv::HeapBlock(capacity * sizeof(wchar_t));
        if (!grown)
            return; // out of memory: this entry is dropped
        buffer = grown.as<wchar_t>();
    }

    writeChars(stamp, static_cast<size_t>(stampLength));
    writeChars(buffer, static_cast<size_t>(length));
}

void LogImp::writeChars(const wchar_t* text, size_t count)
{
    // Write errors are not reported: the log must never disturb a download.
    DWORD written = 0;
    WriteFile(file_.get(), text, static_cast<DWORD>(count * sizeof(wchar_t)), &written, nullptr);
}
