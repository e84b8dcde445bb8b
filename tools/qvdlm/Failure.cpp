#include "Failure.h"

#include <cwchar>

#include "Outcome.h"
#include "QvDLMCodes.h"

namespace qvcli {

namespace {

// The library fetches only from these (its trusted-domain rule).
constexpr const wchar_t* kTrustedHosts = L"trusted hosts: localhost, quorvel.com and its subdomains";

// The text after marker up to the first of the stop characters.
std::wstring after(const std::wstring& line, const std::wstring& marker, const wchar_t* stop = L"")
{
    const size_t at = line.find(marker);
    if (at == std::wstring::npos)
        return {};
    const std::wstring rest = line.substr(at + marker.size());
    return *stop ? rest.substr(0, rest.find_first_of(stop)) : rest;
}

std::wstring connectError(long code)
{
    switch (code) {
    case 12002: return L"timed out";
    case 12029: return L"connection refused";
    case 12030: return L"connection aborted";
    case 12031: return L"connection reset";
    case 2250: return L"connection failed";
    default: return L"error " + std::to_wstring(code);
    }
}

} // namespace

std::wstring httpStatusText(int status)
{
    static const struct { int status; const wchar_t* reason; } reasons[] = {
        {400, L"Bad Request"}, {401, L"Unauthorized"}, {403, L"Forbidden"}, {404, L"Not Found"},
        {405, L"Method Not Allowed"}, {407, L"Proxy Authentication Required"}, {408, L"Request Timeout"},
        {410, L"Gone"}, {416, L"Range Not Satisfiable"}, {429, L"Too Many Requests"},
        {500, L"Internal Server Error"}, {502, L"Bad Gateway"}, {503, L"Service Unavailable"},
        {504, L"Gateway Timeout"}};
    for (const auto& r : reasons)
        if (r.status == status)
            return std::to_wstring(status) + L" " + r.reason;
    return L"HTTP status " + std::to_wstring(status);
}

std::wstring hostOf(const std::wstring& url)
{
    const size_t scheme = url.find(L"://");
    const size_t start = scheme == std::wstring::npos ? 0 : scheme + 3;
    return url.substr(start, url.find_first_of(L"/?#", start) - start);
}

Failure failureFromValidationLine(const std::wstring& line)
{
    if (const std::wstring url = after(line, L"validateUrlDomain failed for URL: "); !url.empty())
        return {exitcode::Untrusted, url + L": host " + hostOf(url).substr(0, hostOf(url).rfind(L':')) + L" is not trusted (" + kTrustedHosts + L")"};
    if (const size_t status = line.rfind(L". status: "); line.find(L"HTTP stream not connected") != std::wstring::npos &&
                                                          status != std::wstring::npos) {
        const std::wstring url = after(line.substr(0, status), L"URL: ");
        const long code = std::wcstol(line.c_str() + status + 10, nullptr, 10);
        if (code == 12007)
            return {exitcode::Network, url + L": cannot resolve host " + hostOf(url)};
        return {exitcode::Network, url + L": cannot connect to " + hostOf(url) + L" (" + connectError(code) + L")"};
    }
    if (const std::wstring url = after(line, L"HttpOpenRequest(HAED) failed\t", L" "); !url.empty())
        return {exitcode::Network, url + L": cannot send the request"};
    if (line.find(L"Content length is 0\t") != std::wstring::npos)
        return {exitcode::HttpError, after(line, L"\t", L" ") + L": the server reports an empty file"};
    if (const std::wstring url = after(line, L"\t", L" "); line.find(L"HTTP status: ") != std::wstring::npos)
        return {exitcode::HttpError, url + L": " + httpStatusText(std::wcstol(after(line, L"HTTP status: ").c_str(), nullptr, 10))};
    return {};
}

Failure refusedUrl(unsigned result, const std::wstring& url, const std::wstring& line)
{
    if (Failure f = failureFromValidationLine(line); f.exitCode != exitcode::Ok)
        return f;
    switch (result) {
    case qvdlm::validation::AlreadyAdded: return {exitcode::Usage, url + L": given twice"};
    case qvdlm::validation::Forbidden: return {exitcode::HttpError, url + L": " + httpStatusText(403)};
    case qvdlm::validation::ProxyAuthRequired: return {exitcode::Network, url + L": the proxy asks for a password"};
    case qvdlm::validation::NewerRequestVersion: return {exitcode::Failed, url + L": stored by a newer version of the library"};
    case qvdlm::validation::ServerNotResponding:
    case qvdlm::validation::NetworkDisconnected:
    case qvdlm::validation::NetworkError: return {exitcode::Network, url + L": cannot connect to " + hostOf(url)};
    default: return {exitcode::HttpError, url + L": the server gives no usable answer (validation result " + std::to_wstring(result) + L")"};
    }
}

Failure failureToPrepare(unsigned long error, const std::wstring& dest, const std::wstring& systemText)
{
    switch (error) {
    case 111: // the library's answer for a folder path of 247 characters or more
        return {exitcode::LocalFiles, L"destination path too long: " + dest + L" (" + std::to_wstring(dest.size()) +
                                          L" characters; at most 246)"};
    case 5: return {exitcode::LocalFiles, L"destination not writable: " + dest + L" (" + systemText + L")"};
    case 0: return {exitcode::Failed, L"cannot prepare the download in " + dest};
    default: return {exitcode::LocalFiles, L"cannot create the destination folder " + dest + L" (" + systemText + L")"};
    }
}

Failure failureOfDownload(uint32_t status, uint32_t streamError, uint32_t lastMessage, const std::wstring& dest)
{
    namespace te = qvdlm::tarerror;
    switch (streamError) {
    case te::FileOpen:
    case te::HardLink:
    case te::SymbolicLink:
    case te::Folder:
    case te::ShortWrite: return {exitcode::LocalFiles, L"cannot write the unpacked files in " + dest};
    case te::BadHeader: return {exitcode::Damaged, L"the package is damaged: it holds no tar archive"};
    case te::Truncated: return {exitcode::Damaged, L"the package is damaged: it ends inside a file"};
    case te::NameConversion: return {exitcode::Damaged, L"the package is damaged: a file name is not UTF-8"};
    default: break;
    }
    if (status == qvdlm::status::OutOfDiskSpace || lastMessage == qvdlm::msg::OutOfDiskSpace)
        return {exitcode::LocalFiles, L"not enough disk space in " + dest};
    if (lastMessage == qvdlm::msg::DecompressFailed)
        return {exitcode::Damaged, L"the package is damaged: it cannot be decompressed"};
    if (lastMessage == qvdlm::msg::UnpackageFailed)
        return {exitcode::Damaged, L"the package cannot be unpacked"};
    switch (status) {
    case qvdlm::status::NetworkError:
    case qvdlm::status::NetworkDisconnected:
    case qvdlm::status::ServerNotResponding: return {exitcode::Network, L"connection lost (" + statusText(status) + L")"};
    case qvdlm::status::OpenFailure: return {exitcode::Network, L"the server cannot be reached"};
    case qvdlm::status::ProxyAuthRequired: return {exitcode::Network, L"the proxy asks for a password"};
    default: break;
    }
    std::wstring text = L"the library gave up";
    if (status != qvdlm::status::None)
        text += L" (" + statusText(status) + L")";
    if (streamError) {
        wchar_t code[32];
        std::swprintf(code, std::size(code), L" [stage error 0x%08X]", static_cast<unsigned>(streamError));
        text += code;
    }
    return {exitcode::Failed, text};
}

} // namespace qvcli
