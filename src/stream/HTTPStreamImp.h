// WinINet implementation of the HTTP source. Used by one stage thread at a time.
#pragma once

#include <cstdint>
#include <string>

#include "QrvlProxy.h"
#include "common/Win32Raii.h"
#include "stream/HTTPStream.h"

namespace qv {

// WinINet handles (HINTERNET) without pulling wininet.h into every includer: it cannot share a
// translation unit with winhttp.h.
struct InternetHandleTraits {
    using type = void*;
    static type invalid() noexcept { return nullptr; }
    static void close(type handle) noexcept;
};
using UniqueInternet = UniqueResource<InternetHandleTraits>;

// Checkpoint record of the HTTP source.
struct HttpStreamState {
    uint32_t size; // 24
    uint32_t reserved0;
    int64_t position;
    uint32_t dataStart;
    uint32_t reserved1;
};
static_assert(sizeof(HttpStreamState) == 24, "the checkpoint record is 24 bytes");

} // namespace qv

class HTTPStreamImp : public HTTPStream {
public:
    static constexpr size_t kCrackBufferLength = 2048;   // UTF-16 units of each cracked part
    static constexpr size_t kHeaderBufferLength = 2048;  // UTF-16 units of the request's extra headers
    static constexpr uint32_t kReadBufferSize = 0x400000;
    static constexpr int64_t kOpenEnded = INT64_MAX;     // sendRequest: from the position to the end
    static constexpr uint32_t kMaxProxyAuthPasses = 8;

    HTTPStreamImp(const wchar_t* url, uint32_t dataStart, int64_t position);
    ~HTTPStreamImp() override;

    // Stream
    void close() override;
    bool restoreState(const StreamStateHeader* record) override;
    uint64_t saveState(StreamStateHeader* out, uint64_t* capacity) override;

    // StreamReader
    HTTPStreamImp* connect() override;
    uint32_t readBytesAligned(uint8_t* buffer, uint32_t capacity, bool align) override;
    uint32_t readBytes(uint8_t* buffer, uint32_t capacity) override;

    // HTTPStream
    int64_t seek(int64_t offset, uint32_t origin) override;
    int64_t contentLength() override;
    int64_t position() override { return position_; }
    bool checkConnection() override;
    HTTPStreamImp* open(bool send) override;
    HTTPStreamImp* openHead(bool send) override;
    uint32_t statusCode() override;
    const wchar_t* httpVersion() override;
    const wchar_t* contentType() override;
    uint32_t rawHeaders(void* buffer, uint32_t* length) override;
    bool sendRequest(int64_t length) override;
    HTTPStreamImp* reconnect() override;
    uint32_t connectTimeout() override { return connectTimeout_; }
    void setTimeouts(uint32_t ms) override;
    int64_t currentPosition() override { return position_; }
    uint32_t dataStart() override { return dataStart_; }
    void url(std::wstring& out) override { out = url_; }

    // What cracking the URL found (empty when it failed).
    const wchar_t* hostName() const { return hostName_; }
    const wchar_t* urlPath() const { return urlPath_; }
    const wchar_t* extraInfo() const { return extraInfo_; }
    uint16_t port() const { return port_; }
    bool isSecure() const { return secure_; }
    bool urlCracked() const { return cracked_; }
    uint32_t receiveTimeout() const { return receiveTimeout_; }
    uint32_t sendTimeout() const { return sendTimeout_; }
    // The Referer header line sent with every request (the vendor's web site, a build setting).
    static const wchar_t* refererHeader();
    // The extra headers of the last sendRequest, as sent.
    const wchar_t* lastRequestHeaders() const { return lastHeaders_; }

private:
    void crackUrl();
    bool openRequest(const wchar_t* verb);
    void closeHandles();
    bool failWithLastError();
    // Checks a fresh response before its body is handed out; false with lastStatus set.
    bool acceptResponse();
    // Asks the proxy subsystem for credentials for url_; true when it gave some.
    bool lookUpProxyCredentials();
    // After a send: true when the proxy answered 407 and fresh credentials are there for another pass.
    bool shouldRetryForProxy(uint32_t pass);
    // Puts the credentials from an earlier 407 on the open connection. WinINet under Wine does not
    // carry them from one connection to the next, so every connection of this source gets them.
    bool applyProxyCredentials();

    uint32_t created_ = 1;
    int64_t position_ = 0;
    uint32_t dataStart_ = 0;
    std::wstring url_;
    bool aligned_ = false;
    qv::UniqueInternet session_;
    qv::UniqueInternet connection_;
    qv::UniqueInternet request_;
    wchar_t hostName_[kCrackBufferLength] = {};
    wchar_t urlPath_[kCrackBufferLength] = {};
    wchar_t extraInfo_[kCrackBufferLength] = {};
    wchar_t httpVersion_[128 / sizeof(wchar_t)] = {};
    qv::HeapBlock contentType_;
    uint32_t connectTimeout_ = 20000;
    uint32_t receiveTimeout_ = 10000;
    uint32_t sendTimeout_ = 10000;
    uint32_t connectRetries_ = 3;
    int scheme_ = 0;
    uint16_t port_ = 0;
    bool secure_ = false;
    bool cracked_ = false;
    uint32_t crackStatus_ = 0;

    // The response being read: checked once, then counted against its Content-Length.
    bool responseChecked_ = false;
    bool rangeFromMiddle_ = false; // the last send asked for a range that starts past byte 0
    int64_t bodyExpected_ = -1;    // Content-Length of the response, -1 when it has none
    int64_t bodyReceived_ = 0;
    uint32_t deferredError_ = 0;   // a read failed after a piece had come: the next read reports it
    bool fastLink_ = false;        // the last piece came whole and quickly: read the next one in one call

    wchar_t lastHeaders_[kHeaderBufferLength] = {};

    // Proxy credentials from an earlier 407, set on every later connection. The lookup's record is kept
    // for the stream's life and released with it.
    ProxyInfo proxyInfo_ = {};
    bool haveProxyCredentials_ = false;
    std::string proxyUser_;
    std::string proxyPassword_;
};
