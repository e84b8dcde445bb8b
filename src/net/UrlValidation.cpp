#include "UrlValidation.h"

#include <windows.h>

#include <cstdarg>
#include <cwchar>
#include <cwctype>
#include <exception>
#include <stdexcept>
#include <string>

#include "QvDLMCodes.h"
#include "log/EventPublisherImpl.h"
#include "net/UrlValidationInternal.h"
#include "stream/HTTPStreamImp.h"

namespace {

// Hosts trusted for downloads, searched in this order.
constexpr const wchar_t* kTrustedPatterns[] = {L"quorvel.com/", L"quorvel.com:", L"localhost/", L"localhost:"};

constexpr size_t kEarlyMessageLength = 1024; // domain failure, not connected
constexpr size_t kHeadMessageLength = 4096;  // the HEAD stage's messages

constexpr uint32_t kCannotConnect = 12029;              // ERROR_INTERNET_CANNOT_CONNECT
constexpr uint32_t kRasOnlyState = qvdlm::HttpErrorBase + 0x10; // connected-state query with RAS_INSTALLED only
constexpr uint32_t kHttpOk = 200;
constexpr uint32_t kHttpForbidden = 403;
constexpr uint32_t kHttpProxyAuthRequired = 407;

void publishFormatted(wchar_t* buffer, size_t capacity, const wchar_t* format, ...)
{
    va_list args;
    va_start(args, format);
    if (_vsnwprintf_s(buffer, capacity, _TRUNCATE, format, args) < 0)
        buffer[capacity - 1] = L'\0';
    va_end(args);
    publishText(nullptr, buffer, qvdlm::event::Information);
}

} // namespace

bool validateUrlDomain(const wchar_t* url)
{
    std::wstring text = url ? url : L"";
    for (wchar_t& c : text)
        c = (c >= L'A' && c <= L'Z') ? static_cast<wchar_t>(c - L'A' + L'a') : static_cast<wchar_t>(std::towlower(c));

    // Without "://" the not-found position plus three wraps round to 2: such a URL is searched from
    // its third character.
    text = text.substr(text.find(L"://") + 3);
    // Only the host part counts; without any "/" the kept text is empty and nothing is trusted.
    text = text.substr(0, text.find(L'/') + 1);

    for (const wchar_t* pattern : kTrustedPatterns)
        if (text.find(pattern) != std::wstring::npos)
            return true;
    return false;
}

uint32_t notConnectedCode(uint32_t status)
{
    if (status == kCannotConnect)
        return qvdlm::validation::ServerNotResponding;
    if (status == kRasOnlyState)
        return qvdlm::validation::NetworkDisconnected;
    return qvdlm::validation::NetworkError;
}

unsigned long validateUrl(DownloadRequest* request)
{
    if (!request)
        return qvdlm::validation::OpenFailure;
    try {
        const wchar_t* urlText = request->getUrl(false);
        const wchar_t* tokenText = request->getQuery();
        const std::wstring url = urlText ? urlText : L"";
        const std::wstring token = tokenText ? tokenText : L"";
        int64_t length = 0;

        bool trusted = false;
        try {
            trusted = validateUrlDomain(url.c_str());
        } catch (const std::out_of_range&) {
            // A URL too short to hold a host: untrusted, and no exception leaves the library.
            trusted = false;
        }
        if (!trusted) {
            wchar_t message[kEarlyMessageLength];
            publishFormatted(message, kEarlyMessageLength, L"validateUrl: validateUrlDomain failed for URL: %ls",
                             url.c_str());
            return qvdlm::validation::OpenFailure;
        }

        uint32_t code = qvdlm::validation::OpenFailure;
        {
            HTTPStreamImp stream(url.c_str(), 0, 0);
            if (!stream.checkConnection()) {
                const uint32_t status = stream.lastStatus();
                wchar_t message[kEarlyMessageLength];
                publishFormatted(message, kEarlyMessageLength,
                                 L"validateUrl: HTTP stream not connected. URL: %ls. status: %d", url.c_str(),
                                 static_cast<int>(status));
                code = notConnectedCode(status);
            } else if (!stream.openHead(true)) {
                // The misspelt verb is part of the published text.
                wchar_t message[kHeadMessageLength];
                publishFormatted(message, kHeadMessageLength, L"validateUrl: HttpOpenRequest(HAED) failed\t%ls %ls",
                                 url.c_str(), token.c_str());
                code = qvdlm::validation::OpenFailure;
            } else {
                const uint32_t status = stream.statusCode();
                if (status == kHttpProxyAuthRequired) {
                    code = qvdlm::validation::ProxyAuthRequired;
                } else if (status == kHttpOk) {
                    length = stream.contentLength();
                    code = length != 0 ? qvdlm::validation::Ok : qvdlm::validation::OpenFailure;
                    wchar_t message[kHeadMessageLength];
                    publishFormatted(message, kHeadMessageLength, L"validateUrl: Content length is %lld\t%ls %ls",
                                     static_cast<long long>(length), url.c_str(), token.c_str());
                } else {
                    wchar_t message[kHeadMessageLength];
                    publishFormatted(message, kHeadMessageLength, L"validateUrl: HTTP status: %d\t%ls %ls",
                                     static_cast<int>(status), url.c_str(), token.c_str());
                    code = status == kHttpForbidden ? qvdlm::validation::Forbidden : qvdlm::validation::OpenFailure;
                }
            }
            request->setContentLength(length);
        }
        return code;
    } catch (const std::exception&) {
        return qvdlm::validation::OpenFailure;
    }
}
