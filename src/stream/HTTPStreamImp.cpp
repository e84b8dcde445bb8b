#include "stream/HTTPStreamImp.h"

#include <windows.h>
#include <wininet.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <cwchar>

#include "QvDLMCodes.h"
#include "stream/TarHeaderScanner.h"

#ifndef QVDLM_REFERER
#error "QVDLM_REFERER (the vendor's web site sent as Referer) is set by the build"
#endif

namespace {

constexpr uint32_t kReadFailed = UINT32_MAX;
constexpr wchar_t kRefererHeader[] = L"Referer: " QVDLM_REFERER L"\r\n";
constexpr DWORD kConnectionsPerServer = 8;
// A stub larger than one read pushes the data start into the next reads; this bounds how many.
constexpr int kMaxSkipReads = 16;
// One read hands out at most this much, and gathers what arrives for at most this long: the thread that
// reads sees a stop, pause or abort between two reads, and progress moves with each of them.
constexpr uint32_t kMaxPiece = 0x40000;
constexpr ULONGLONG kPieceMs = 100;
// A whole piece that came within this long marks a fast link (above about 12 MB/s), where the next piece
// is read in one call; one that takes longer goes back to asking what has arrived.
constexpr ULONGLONG kFastPieceMs = 20;

HINTERNET handleOf(const qv::UniqueInternet& handle) { return static_cast<HINTERNET>(handle.get()); }

// Copies one cracked part into its fixed buffer; false when it had to be cut.
bool copyPart(wchar_t* target, size_t capacity, const wchar_t* source, DWORD length)
{
    const size_t fit = std::min<size_t>(length, capacity - 1);
    if (source && fit)
        std::wmemcpy(target, source, fit);
    target[fit] = L'\0';
    return fit == length;
}

bool setDwordOption(HINTERNET handle, DWORD option, DWORD value)
{
    return InternetSetOptionW(handle, option, &value, sizeof value) != FALSE;
}

// Connection limits and the read buffer size only tune WinINet; one that does not know such an option
// runs without it (Wine's refuses the proxy limit and the read buffer size with 12009, and reading the
// buffer size back with 12018).
bool unknownOption()
{
    const DWORD error = GetLastError();
    return error == ERROR_INTERNET_INVALID_OPTION || error == ERROR_INTERNET_INCORRECT_HANDLE_TYPE;
}

bool setTuningOption(HINTERNET handle, DWORD option, DWORD value)
{
    return setDwordOption(handle, option, value) || unknownOption();
}

bool queryTuningOption(HINTERNET handle, DWORD option, DWORD* value)
{
    DWORD length = sizeof *value;
    return InternetQueryOptionW(handle, option, value, &length) || unknownOption();
}

void formatInto(wchar_t* buffer, size_t capacity, const wchar_t* format, ...)
{
    va_list args;
    va_start(args, format);
    if (_vsnwprintf_s(buffer, capacity, _TRUNCATE, format, args) < 0 && capacity)
        buffer[capacity - 1] = L'\0';
    va_end(args);
}

} // namespace

const wchar_t* HTTPStreamImp::refererHeader() { return kRefererHeader; }

void qv::InternetHandleTraits::close(type handle) noexcept { InternetCloseHandle(static_cast<HINTERNET>(handle)); }

HTTPStreamImp::HTTPStreamImp(const wchar_t* url, uint32_t dataStart, int64_t position)
    : position_(position), dataStart_(dataStart), aligned_(position > 0)
{
    url_ = url ? url : L"";
    crackUrl();
}

HTTPStreamImp::~HTTPStreamImp()
{
    close();
    SecureZeroMemory(proxyPassword_.data(), proxyPassword_.size());
    qrvlProxyDeallocate(&proxyInfo_);
}

void HTTPStreamImp::crackUrl()
{
    if (url_.find(L"://") == std::wstring::npos)
        url_.insert(0, L"http://");
    secure_ = url_.find(L"http://") == std::wstring::npos && url_.find(L"https://") != std::wstring::npos;

    // Let WinINet point into the URL, then copy each part into its buffer: an over-long part is cut
    // there and the URL counts as not cracked, rather than overrunning anything.
    URL_COMPONENTSW parts{};
    parts.dwStructSize = sizeof parts;
    parts.dwHostNameLength = 1;
    parts.dwUrlPathLength = 1;
    parts.dwExtraInfoLength = 1;
    cracked_ = false;
    if (!InternetCrackUrlW(url_.c_str(), static_cast<DWORD>(url_.size()), 0, &parts)) {
        crackStatus_ = GetLastError();
        lastStatus_ = crackStatus_;
        return;
    }
    scheme_ = parts.nScheme;
    port_ = parts.nPort;
    bool whole = copyPart(hostName_, kCrackBufferLength, parts.lpszHostName, parts.dwHostNameLength);
    whole = copyPart(urlPath_, kCrackBufferLength, parts.lpszUrlPath, parts.dwUrlPathLength) && whole;
    whole = copyPart(extraInfo_, kCrackBufferLength, parts.lpszExtraInfo, parts.dwExtraInfoLength) && whole;
    if (!whole || !hostName_[0]) {
        crackStatus_ = whole ? ERROR_INTERNET_INVALID_URL : ERROR_INSUFFICIENT_BUFFER;
        lastStatus_ = crackStatus_;
        return;
    }
    cracked_ = true;
}

bool HTTPStreamImp::failWithLastError()
{
    const DWORD error = GetLastError();
    lastStatus_ = error ? error : ERROR_INTERNET_INTERNAL_ERROR;
    return false;
}

void HTTPStreamImp::closeHandles()
{
    request_.reset();
    connection_.reset();
    session_.reset();
    responseChecked_ = false;
    bodyExpected_ = -1;
    bodyReceived_ = 0;
    deferredError_ = 0;
    fastLink_ = false;
}

void HTTPStreamImp::close()
{
    closeHandles();
    contentType_.reset();
}

bool HTTPStreamImp::restoreState(const StreamStateHeader* record)
{
    if (!record || record->size < sizeof(qv::HttpStreamState))
        return false;
    const auto* state = reinterpret_cast<const qv::HttpStreamState*>(record);
    position_ = state->position;
    dataStart_ = state->dataStart;
    // Alignment looks at the first bytes of the resource only; a resumed source is past them.
    aligned_ = position_ > 0;
    return true;
}

uint64_t HTTPStreamImp::saveState(StreamStateHeader* out, uint64_t* capacity)
{
    constexpr uint64_t size = sizeof(qv::HttpStreamState);
    if (out && capacity && *capacity >= size) {
        qv::HttpStreamState state{};
        state.size = static_cast<uint32_t>(size);
        state.position = position_;
        state.dataStart = dataStart_;
        std::memcpy(out, &state, sizeof state);
    }
    return size;
}

HTTPStreamImp* HTTPStreamImp::connect() { return open(true); }

bool HTTPStreamImp::openRequest(const wchar_t* verb)
{
    closeHandles();
    if (!cracked_) {
        lastStatus_ = crackStatus_;
        return false;
    }
    if (!setTuningOption(nullptr, INTERNET_OPTION_MAX_CONNS_PER_SERVER, kConnectionsPerServer) ||
        !setTuningOption(nullptr, INTERNET_OPTION_MAX_CONNS_PER_1_0_SERVER, kConnectionsPerServer) ||
        !setTuningOption(nullptr, INTERNET_OPTION_MAX_CONNS_PER_PROXY, kConnectionsPerServer))
        return failWithLastError();

    session_.reset(InternetOpenW(L"WinINet/1.0", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0));
    if (!session_)
        return failWithLastError();
    connection_.reset(InternetConnectW(handleOf(session_), hostName_, port_, nullptr, nullptr, INTERNET_SERVICE_HTTP, 0, 0));
    if (!connection_)
        return failWithLastError();
    if (!applyProxyCredentials())
        return false;

    std::wstring object = urlPath_;
    object += extraInfo_;
    DWORD flags = INTERNET_FLAG_NO_CACHE_WRITE | INTERNET_FLAG_KEEP_CONNECTION | INTERNET_FLAG_NO_COOKIES |
                  INTERNET_FLAG_NO_UI | INTERNET_FLAG_PRAGMA_NOCACHE;
    if (secure_)
        flags |= INTERNET_FLAG_SECURE;
    request_.reset(HttpOpenRequestW(handleOf(connection_), verb, object.c_str(), nullptr, nullptr, nullptr, flags, 0));
    if (!request_)
        return failWithLastError();

    const HINTERNET request = handleOf(request_);
    DWORD readBuffer = kReadBufferSize;
    if (!setTuningOption(request, INTERNET_OPTION_READ_BUFFER_SIZE, kReadBufferSize) ||
        !queryTuningOption(request, INTERNET_OPTION_READ_BUFFER_SIZE, &readBuffer) ||
        !setDwordOption(request, INTERNET_OPTION_CONNECT_TIMEOUT, connectTimeout_) ||
        !setDwordOption(request, INTERNET_OPTION_RECEIVE_TIMEOUT, receiveTimeout_) ||
        !setDwordOption(request, INTERNET_OPTION_SEND_TIMEOUT, sendTimeout_) ||
        !setDwordOption(request, INTERNET_OPTION_CONNECT_RETRIES, connectRetries_))
        return failWithLastError();
    return true;
}

bool HTTPStreamImp::checkConnection()
{
    DWORD flags = 0;
    if (!InternetGetConnectedState(&flags, 0)) {
        lastStatus_ = qvdlm::HttpErrorBase + flags;
        return false;
    }

    INTERNET_PER_CONN_OPTIONW option{};
    option.dwOption = INTERNET_PER_CONN_PROXY_SERVER;
    INTERNET_PER_CONN_OPTION_LISTW list{};
    list.dwSize = sizeof list;
    list.dwOptionCount = 1;
    list.pOptions = &option;
    DWORD size = sizeof list;
    if (!InternetQueryOptionW(nullptr, INTERNET_OPTION_PER_CONNECTION_OPTION, &list, &size))
        return failWithLastError();
    if (option.Value.pszValue) {
        const bool proxy = option.Value.pszValue[0] != L'\0';
        GlobalFree(option.Value.pszValue);
        // Past a proxy the server itself cannot be probed.
        if (proxy)
            return true;
    }

    if (!InternetCheckConnectionW(url_.c_str(), FLAG_ICC_FORCE_CONNECTION, 0))
        return failWithLastError();
    return true;
}

HTTPStreamImp* HTTPStreamImp::open(bool send)
{
    if (!checkConnection())
        return nullptr;
    if (!openRequest(L"GET")) {
        closeHandles();
        return nullptr;
    }
    if (send && !sendRequest(0))
        return nullptr;
    return this;
}

HTTPStreamImp* HTTPStreamImp::openHead(bool send)
{
    for (uint32_t pass = 1;; ++pass) {
        bool ok = openRequest(L"HEAD");
        if (ok && send)
            ok = sendRequest(0);
        if (!shouldRetryForProxy(pass))
            return ok ? this : nullptr;
        closeHandles();
    }
}

bool HTTPStreamImp::shouldRetryForProxy(uint32_t pass)
{
    // A proxy that keeps refusing fresh credentials is not asked forever.
    return statusCode() == HTTP_STATUS_PROXY_AUTH_REQ && pass < kMaxProxyAuthPasses && lookUpProxyCredentials();
}

bool HTTPStreamImp::applyProxyCredentials()
{
    if (!haveProxyCredentials_)
        return true;
    const HINTERNET connection = handleOf(connection_);
    if (InternetSetOptionA(connection, INTERNET_OPTION_PROXY_USERNAME, proxyUser_.data(),
                           static_cast<DWORD>(proxyUser_.size())) &&
        InternetSetOptionA(connection, INTERNET_OPTION_PROXY_PASSWORD, proxyPassword_.data(),
                           static_cast<DWORD>(proxyPassword_.size())))
        return true;
    return failWithLastError();
}

bool HTTPStreamImp::lookUpProxyCredentials()
{
    // The proxy subsystem speaks UTF-8; an unconvertible URL has no proxy to ask about.
    const int length = WideCharToMultiByte(CP_UTF8, 0, url_.c_str(), -1, nullptr, 0, nullptr, nullptr);
    if (length <= 0)
        return false;
    std::string url(static_cast<size_t>(length), '\0');
    if (WideCharToMultiByte(CP_UTF8, 0, url_.c_str(), -1, url.data(), length, nullptr, nullptr) <= 0)
        return false;

    // An earlier pass's record is replaced: its credentials were not accepted.
    qrvlProxyDeallocate(&proxyInfo_);
    UserData request = {url.c_str(), nullptr, nullptr, false};
    if (qrvlGetProxyInfo(&request, &proxyInfo_) != PM_STATUS_OK)
        return false;

    SecureZeroMemory(proxyPassword_.data(), proxyPassword_.size());
    proxyUser_ = proxyInfo_.user ? proxyInfo_.user : "";
    proxyPassword_ = proxyInfo_.password ? proxyInfo_.password : "";
    haveProxyCredentials_ = true;
    return true;
}

bool HTTPStreamImp::sendRequest(int64_t length)
{
    if (length == 0)
        formatInto(lastHeaders_, kHeaderBufferLength, L"%ls", kRefererHeader);
    else if (length == kOpenEnded)
        formatInto(lastHeaders_, kHeaderBufferLength, L"Range:bytes=%lld-\r\n%ls", static_cast<long long>(position_),
                   kRefererHeader);
    else
        // The end bound is position + length, one byte more than length, on purpose.
        formatInto(lastHeaders_, kHeaderBufferLength, L"Range:bytes=%lld-%lld\r\n%ls",
                   static_cast<long long>(position_), static_cast<long long>(position_ + length), kRefererHeader);

    responseChecked_ = false;
    bodyExpected_ = -1;
    bodyReceived_ = 0;
    rangeFromMiddle_ = length != 0 && position_ > 0;
    if (!HttpSendRequestW(handleOf(request_), lastHeaders_, static_cast<DWORD>(-1), nullptr, 0))
        return failWithLastError();
    return true;
}

HTTPStreamImp* HTTPStreamImp::reconnect()
{
    close();
    for (uint32_t pass = 1;; ++pass) {
        bool ok = open(false) != nullptr;
        if (ok) {
            seek(position_, 0);
            ok = sendRequest(kOpenEnded);
        }
        if (!ok) {
            const uint32_t status = lastStatus_;
            close();
            lastStatus_ = status;
            return nullptr;
        }
        if (!shouldRetryForProxy(pass))
            break;
    }
    lastStatus_ = 0;
    return this;
}

void HTTPStreamImp::setTimeouts(uint32_t ms)
{
    connectTimeout_ = std::min<uint32_t>(ms, 60000);
    receiveTimeout_ = std::min<uint32_t>(ms / 2, 30000);
    sendTimeout_ = receiveTimeout_;
}

bool HTTPStreamImp::acceptResponse()
{
    const uint32_t status = statusCode();
    if (status == 0) {
        // The server closed the connection without a status line.
        lastStatus_ = ERROR_HTTP_INVALID_SERVER_RESPONSE;
        return false;
    }
    // An error page or a whole resource sent instead of the asked range is not this resource's data.
    if (status < 200 || status > 299 || (status == HTTP_STATUS_OK && rangeFromMiddle_)) {
        lastStatus_ = qvdlm::HttpErrorBase + status;
        return false;
    }
    wchar_t text[64] = {};
    DWORD size = sizeof text;
    bodyExpected_ = HttpQueryInfoW(handleOf(request_), HTTP_QUERY_CONTENT_LENGTH, text, &size, nullptr)
                        ? _wcstoi64(text, nullptr, 10)
                        : -1;
    return true;
}

uint32_t HTTPStreamImp::readBytes(uint8_t* buffer, uint32_t capacity)
{
    if (!request_) {
        lastStatus_ = ERROR_INVALID_HANDLE;
        return kReadFailed;
    }
    if (!buffer && capacity) {
        lastStatus_ = ERROR_INVALID_PARAMETER;
        return kReadFailed;
    }
    if (!responseChecked_) {
        if (!acceptResponse())
            return kReadFailed;
        responseChecked_ = true;
    }
    if (capacity == 0) {
        lastStatus_ = 0;
        return 0;
    }
    if (deferredError_) {
        lastStatus_ = deferredError_;
        deferredError_ = 0;
        return kReadFailed;
    }
    const uint32_t want = std::min(capacity, kMaxPiece);
    const ULONGLONG begun = GetTickCount64();
    uint32_t read = 0;
    if (fastLink_) {
        // While pieces come quickly a whole piece is there at once: one plain read takes it, where asking
        // first would cost two calls per few KiB.
        DWORD taken = 0;
        if (!InternetReadFile(handleOf(request_), buffer, want, &taken)) {
            failWithLastError();
            return kReadFailed;
        }
        read = taken;
    }
    // A synchronous read waits until its whole size has come: on a slow link ask what has arrived and
    // take only that, waiting only while nothing has.
    while (!fastLink_ && read < want) {
        DWORD available = 0;
        DWORD taken = 0;
        if (!InternetQueryDataAvailable(handleOf(request_), &available, 0, 0) ||
            (available > 0 &&
             !InternetReadFile(handleOf(request_), buffer + read, std::min<DWORD>(available, want - read), &taken))) {
            failWithLastError();
            if (read == 0)
                return kReadFailed;
            deferredError_ = lastStatus_; // what came before the failure is handed out first
            break;
        }
        read += taken;
        if (taken == 0 || GetTickCount64() - begun >= kPieceMs)
            break;
    }
    fastLink_ = read == want && GetTickCount64() - begun < kFastPieceMs;
    // A connection closed before the announced length looks like a clean end to some stacks: only
    // the Content-Length tells a truncated body from a complete one.
    if (read == 0 && bodyExpected_ >= 0 && bodyReceived_ < bodyExpected_) {
        lastStatus_ = ERROR_INTERNET_CONNECTION_ABORTED;
        return kReadFailed;
    }
    bodyReceived_ += read;
    position_ += read;
    lastStatus_ = 0;
    return read;
}

uint32_t HTTPStreamImp::readBytesAligned(uint8_t* buffer, uint32_t capacity, bool align)
{
    for (int reads = 0;; ++reads) {
        const int64_t start = position_;
        uint32_t count = readBytes(buffer, capacity);
        if (count == kReadFailed)
            return count;
        // The stub in front of the data is looked for once, in the whole first buffer.
        while (align && !aligned_ && count > 0 && count < capacity) {
            const uint32_t more = readBytes(buffer + count, capacity - count);
            if (more == kReadFailed)
                deferredError_ = lastStatus_; // reported by the next read, after what came
            if (more == kReadFailed || more == 0)
                break;
            count += more;
        }
        lastStatus_ = 0;
        if (align && !aligned_) {
            qv::TarHeaderMatch match;
            if (qv::findTarHeader(buffer, count, &match)) {
                const uint64_t begin = static_cast<uint64_t>(start) + match.headerOffset + match.dataOffset;
                if (begin <= UINT32_MAX)
                    dataStart_ = static_cast<uint32_t>(begin);
            }
            aligned_ = true;
        }
        // Nothing before the data start leaves the source: drop it and close the gap.
        if (count == 0 || start >= static_cast<int64_t>(dataStart_))
            return count;
        const uint32_t skip = static_cast<uint32_t>(std::min<int64_t>(count, dataStart_ - start));
        std::memmove(buffer, buffer + skip, count - skip);
        std::memset(buffer + (count - skip), 0, skip);
        count -= skip;
        if (count > 0 || reads + 1 >= kMaxSkipReads)
            return count;
    }
}

int64_t HTTPStreamImp::seek(int64_t offset, uint32_t origin)
{
    if (!httpVersion_[0])
        httpVersion();
    if (origin == 0)
        position_ = offset;
    else if (origin == 1)
        position_ += offset;
    else if (origin == 2)
        contentLength();
    return 0;
}

int64_t HTTPStreamImp::contentLength()
{
    wchar_t text[64] = {};
    DWORD size = sizeof text;
    if (!HttpQueryInfoW(handleOf(request_), HTTP_QUERY_CONTENT_LENGTH, text, &size, nullptr)) {
        failWithLastError();
        return -1;
    }
    return _wcstoi64(text, nullptr, 10);
}

uint32_t HTTPStreamImp::statusCode()
{
    DWORD code = 0;
    DWORD size = sizeof code;
    if (!request_ ||
        !HttpQueryInfoW(handleOf(request_), HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER, &code, &size, nullptr))
        return 0;
    return code;
}

const wchar_t* HTTPStreamImp::httpVersion()
{
    if (!httpVersion_[0] && request_) {
        DWORD size = sizeof httpVersion_ - sizeof(wchar_t);
        if (!HttpQueryInfoW(handleOf(request_), HTTP_QUERY_VERSION, httpVersion_, &size, nullptr))
            httpVersion_[0] = L'\0';
        httpVersion_[std::size(httpVersion_) - 1] = L'\0';
    }
    return httpVersion_;
}

const wchar_t* HTTPStreamImp::contentType()
{
    if (contentType_)
        return contentType_.as<wchar_t>();
    DWORD size = 0;
    if (!request_ || HttpQueryInfoW(handleOf(request_), HTTP_QUERY_CONTENT_TYPE, nullptr, &size, nullptr) ||
        GetLastError() != ERROR_INSUFFICIENT_BUFFER) {
        failWithLastError();
        return nullptr;
    }
    qv::HeapBlock text(size + sizeof(wchar_t));
    if (!text) {
        lastStatus_ = ERROR_NOT_ENOUGH_MEMORY;
        return nullptr;
    }
    if (!HttpQueryInfoW(handleOf(request_), HTTP_QUERY_CONTENT_TYPE, text.get(), &size, nullptr)) {
        failWithLastError();
        return nullptr;
    }
    text.as<wchar_t>()[size / sizeof(wchar_t)] = L'\0';
    contentType_ = std::move(text);
    return contentType_.as<wchar_t>();
}

uint32_t HTTPStreamImp::rawHeaders(void* buffer, uint32_t* length)
{
    if (!length) {
        lastStatus_ = ERROR_INVALID_PARAMETER;
        return kReadFailed;
    }
    DWORD size = *length;
    if (!HttpQueryInfoW(handleOf(request_), HTTP_QUERY_RAW_HEADERS_CRLF, buffer, &size, nullptr)) {
        failWithLastError();
        *length = size; // what it would need, when the buffer was too small
        return kReadFailed;
    }
    *length = size;
    return size;
}
