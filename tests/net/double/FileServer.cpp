#include "double/FileServer.h"

#include <ws2tcpip.h>
#include <windows.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>

namespace qvdouble {

namespace {

constexpr size_t kMaxRequestHead = 16384;
constexpr DWORD kSocketTimeoutMs = 10000;
constexpr size_t kChunk = 65536;
constexpr size_t kMaxConnections = 64;

std::string lower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string percentDecode(const std::string& text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
            std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
            out += static_cast<char>(std::strtoul(text.substr(i + 1, 2).c_str(), nullptr, 16));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

// Last segment of a URL's or target's path, without query or fragment.
std::string lastSegment(const std::string& url)
{
    size_t start = 0;
    const size_t scheme = url.find("://");
    if (scheme != std::string::npos)
        start = url.find('/', scheme + 3);
    if (start == std::string::npos)
        return {};
    const size_t end = url.find_first_of("?#", start);
    const std::string path = url.substr(start, end == std::string::npos ? std::string::npos : end - start);
    const size_t slash = path.find_last_of('/');
    return percentDecode(slash == std::string::npos ? path : path.substr(slash + 1));
}

std::wstring widen(const std::string& text)
{
    if (text.empty())
        return {};
    const int n = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring out(static_cast<size_t>(n), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), n);
    return out;
}

bool sendAll(SOCKET s, const char* data, size_t size)
{
    while (size > 0) {
        const int sent = ::send(s, data, static_cast<int>(std::min<size_t>(size, kChunk)), 0);
        if (sent <= 0)
            return false;
        data += sent;
        size -= static_cast<size_t>(sent);
    }
    return true;
}

void sendStatus(SOCKET s, int code, const char* reason, const std::string& extra = {})
{
    char head[512];
    std::snprintf(head, sizeof head, "HTTP/1.1 %d %s\r\nContent-Length: 0\r\n%sConnection: close\r\n\r\n", code,
                  reason, extra.c_str());
    sendAll(s, head, std::char_traits<char>::length(head));
}

// Parses "bytes=a-" or "bytes=a-b"; false for anything else.
bool parseRange(const std::string& range, uint64_t size, uint64_t& first, uint64_t& last)
{
    const std::string text = lower(range);
    if (text.rfind("bytes=", 0) != 0)
        return false;
    const size_t dash = text.find('-', 6);
    if (dash == std::string::npos || dash == 6)
        return false;
    first = std::strtoull(text.substr(6, dash - 6).c_str(), nullptr, 10);
    const std::string tail = text.substr(dash + 1);
    last = tail.empty() ? (size ? size - 1 : 0) : std::strtoull(tail.c_str(), nullptr, 10);
    if (size && last >= size)
        last = size - 1;
    return true;
}

} // namespace

FileServer::FileServer(Kind kind, std::wstring root, Journal journal)
    : kind_(kind), root_(std::move(root)), journal_(std::move(journal))
{
}

FileServer::~FileServer() { stop(); }

bool FileServer::start(uint16_t port)
{
    WSADATA wsa;
    if (WSAStartup(MAKEWORD(2, 2), &wsa) != 0)
        return false;
    listener_ = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (listener_ == INVALID_SOCKET)
        return false;
    BOOL exclusive = TRUE;
    setsockopt(listener_, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&exclusive), sizeof exclusive);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(listener_, 16) != 0) {
        closesocket(listener_);
        listener_ = INVALID_SOCKET;
        return false;
    }
    acceptor_ = std::thread([this] { acceptLoop(); });
    return true;
}

void FileServer::stop()
{
    stopping_ = true;
    if (listener_ != INVALID_SOCKET) {
        closesocket(listener_);
        listener_ = INVALID_SOCKET;
    }
    if (acceptor_.joinable())
        acceptor_.join();
    std::vector<std::thread> workers;
    {
        std::lock_guard<std::mutex> hold(lock_);
        for (SOCKET s : clients_)
            ::shutdown(s, SD_BOTH);
        workers.swap(workers_);
    }
    for (std::thread& worker : workers)
        worker.join();
}

void FileServer::acceptLoop()
{
    while (!stopping_) {
        SOCKET client = ::accept(listener_, nullptr, nullptr);
        if (client == INVALID_SOCKET)
            return;
        std::lock_guard<std::mutex> hold(lock_);
        if (stopping_ || clients_.size() >= kMaxConnections) {
            closesocket(client);
            continue;
        }
        clients_.push_back(client);
        workers_.emplace_back([this, client] { serve(client); });
    }
}

void FileServer::serve(SOCKET client)
{
    const DWORD timeout = kSocketTimeoutMs;
    setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&timeout), sizeof timeout);
    setsockopt(client, SOL_SOCKET, SO_SNDTIMEO, reinterpret_cast<const char*>(&timeout), sizeof timeout);
    Request request;
    if (readRequest(client, request))
        answer(client, request);
    ::shutdown(client, SD_SEND);
    std::lock_guard<std::mutex> hold(lock_);
    clients_.erase(std::remove(clients_.begin(), clients_.end(), client), clients_.end());
    closesocket(client);
}

bool FileServer::readRequest(SOCKET client, Request& request)
{
    std::string head;
    char buffer[2048];
    while (head.find("\r\n\r\n") == std::string::npos) {
        if (head.size() > kMaxRequestHead)
            return false;
        const int got = ::recv(client, buffer, sizeof buffer, 0);
        if (got <= 0)
            return false;
        head.append(buffer, static_cast<size_t>(got));
    }
    const size_t lineEnd = head.find("\r\n");
    const std::string line = head.substr(0, lineEnd);
    const size_t sp1 = line.find(' ');
    const size_t sp2 = line.rfind(' ');
    if (sp1 == std::string::npos || sp2 == sp1)
        return false;
    request.method = line.substr(0, sp1);
    request.target = line.substr(sp1 + 1, sp2 - sp1 - 1);
    for (size_t at = lineEnd + 2; at < head.size();) {
        const size_t end = head.find("\r\n", at);
        if (end == std::string::npos || end == at)
            break;
        const std::string header = head.substr(at, end - at);
        const size_t colon = header.find(':');
        if (colon != std::string::npos && lower(header.substr(0, colon)) == "range") {
            size_t value = colon + 1;
            while (value < header.size() && header[value] == ' ')
                ++value;
            request.range = header.substr(value);
        }
        at = end + 2;
    }
    return true;
}

std::string FileServer::fileNameFor(const std::string& target, std::string& originUrl) const
{
    if (kind_ == Kind::Origin) {
        originUrl = target;
        return lastSegment("http://origin" + target);
    }
    // The origin URL is the last query key and may carry a query of its own.
    const std::string prefix = "/api?";
    if (target.rfind(prefix, 0) != 0)
        return {};
    const std::string query = target.substr(prefix.size());
    if (query.find("function=serveFile") == std::string::npos)
        return {};
    const size_t url = query.find("url=");
    if (url == std::string::npos)
        return {};
    originUrl = percentDecode(query.substr(url + 4));
    return lastSegment(originUrl);
}

void FileServer::answer(SOCKET client, const Request& request)
{
    std::string originUrl;
    const std::string name = fileNameFor(request.target, originUrl);
    const char* who = kind_ == Kind::Origin ? "origin " : "serve ";
    journal_(who + (originUrl.empty() ? request.target : originUrl) + " " + (request.range.empty() ? "-" : request.range));

    if (failure_ == Failure::Unavailable) {
        sendStatus(client, 503, "Service Unavailable");
        return;
    }
    if (name.empty() || name.find("..") != std::string::npos || (request.method != "GET" && request.method != "HEAD")) {
        sendStatus(client, 400, "Bad Request");
        return;
    }
    const std::wstring path = root_ + L"\\" + widen(name);
    HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        sendStatus(client, 404, "Not Found");
        return;
    }
    LARGE_INTEGER size{};
    GetFileSizeEx(file, &size);
    const uint64_t total = static_cast<uint64_t>(size.QuadPart);
    uint64_t first = 0;
    uint64_t last = total ? total - 1 : 0;
    const bool ranged = !request.range.empty() && parseRange(request.range, total, first, last);
    if (ranged && first >= total) {
        CloseHandle(file);
        sendStatus(client, 416, "Range Not Satisfiable", "Content-Range: bytes */" + std::to_string(total) + "\r\n");
        return;
    }
    const uint64_t length = total ? last - first + 1 : 0;
    std::string head = ranged ? "HTTP/1.1 206 Partial Content\r\n" : "HTTP/1.1 200 OK\r\n";
    head += "Content-Type: application/octet-stream\r\nAccept-Ranges: bytes\r\nContent-Length: " + std::to_string(length) + "\r\n";
    if (ranged)
        head += "Content-Range: bytes " + std::to_string(first) + "-" + std::to_string(last) + "/" + std::to_string(total) + "\r\n";
    head += "Connection: close\r\n\r\n";
    bool ok = sendAll(client, head.data(), head.size());
    if (request.method == "GET" && ok) {
        LARGE_INTEGER at{};
        at.QuadPart = static_cast<LONGLONG>(first);
        SetFilePointerEx(file, at, nullptr, FILE_BEGIN);
        std::vector<char> chunk(kChunk);
        uint64_t left = failure_ == Failure::CutShort ? std::min(length, kCutAfter) : length;
        while (ok && left > 0 && !stopping_) {
            DWORD got = 0;
            if (!ReadFile(file, chunk.data(), static_cast<DWORD>(std::min<uint64_t>(left, kChunk)), &got, nullptr) || got == 0)
                break;
            ok = sendAll(client, chunk.data(), got);
            left -= got;
        }
    }
    CloseHandle(file);
}

} // namespace qvdouble
