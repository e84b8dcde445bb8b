#include "LibrarySession.h"

#include <vector>

namespace qvcli {

std::wstring absolutePath(const std::wstring& path)
{
    std::vector<wchar_t> buffer(32768);
    const DWORD length = GetFullPathNameW(path.c_str(), static_cast<DWORD>(buffer.size()), buffer.data(), nullptr);
    if (length == 0 || length >= buffer.size())
        return path;
    return std::wstring(buffer.data(), length);
}

std::wstring systemErrorText(DWORD code)
{
    wchar_t* text = nullptr;
    const DWORD length = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                                            FORMAT_MESSAGE_IGNORE_INSERTS,
                                        nullptr, code, 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
    std::wstring out = length && text ? std::wstring(text, length) : L"error " + std::to_wstring(code);
    if (text)
        LocalFree(text);
    while (!out.empty() && (out.back() == L'\n' || out.back() == L'\r' || out.back() == L' ' || out.back() == L'.'))
        out.pop_back();
    return out;
}

LibrarySession::~LibrarySession()
{
    // The manager first: it may still publish while it lets its downloads go.
    QvDLM::destroy(manager_);
    if (subscribed_)
        EventPublisher::getInstance()->unsubscribe(&events_);
    QvDLM::destroy(log_);
    if (resources_)
        FreeLibrary(resources_);
}

bool LibrarySession::openStore(const std::wstring& storePath)
{
    store_ = DownloadRequestLog::getInstance();
    const std::wstring path = storePath.empty() ? std::wstring() : absolutePath(storePath);
    if (!store_ || !store_->open(path.empty() ? nullptr : path.c_str())) {
        console_.error(L"cannot open the request store" + (path.empty() ? std::wstring() : L" " + path));
        return false;
    }
    return true;
}

bool LibrarySession::openLog(const std::wstring& logPath)
{
    if (logPath.empty())
        return true;
    // The log refuses to open unless the resource module is loaded in the process.
    resources_ = LoadLibraryW(L"QvDLMRes.dll");
    if (!resources_) {
        console_.error(L"cannot load QvDLMRes.dll: " + systemErrorText(GetLastError()));
        return false;
    }
    const std::wstring path = absolutePath(logPath);
    log_ = QvDLM::createLog(path.c_str());
    if (!log_) {
        console_.error(L"cannot open the log file " + path);
        return false;
    }
    return true;
}

bool LibrarySession::openManager()
{
    // Subscribed before any download exists: subscribing while downloads publish is not safe.
    EventPublisher::getInstance()->subscribe(&events_);
    subscribed_ = true;
    manager_ = QvDLM::createDownloadMgr();
    if (!manager_) {
        console_.error(L"cannot make the download manager (out of memory)");
        return false;
    }
    return true;
}

} // namespace qvcli
