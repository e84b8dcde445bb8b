// The pipeline's HTTP source: one URL fetched over WinINet with byte ranges. The slot order of this
// table is fixed: the Stream operations, StreamReader's connect/readBytesAligned/readBytes, then the
// operations below in the order declared.
#pragma once

#include <cstdint>
#include <string>

#include "stream/Stream.h"

class HTTPStream : public StreamReader {
public:
    // Moves the position: origin 0 from the start, 1 from the current position; origin 2 only asks
    // for the content length (the source cannot seek from the end). Always returns 0.
    virtual int64_t seek(int64_t offset, uint32_t origin) = 0;
    // The Content-Length header; -1 with lastStatus set when it cannot be read.
    virtual int64_t contentLength() = 0;
    // Bytes of the resource consumed so far: where the next ranged request starts.
    virtual int64_t position() = 0;
    virtual bool checkConnection() = 0;
    // Opens a GET request (sent without a range when send is true); itself or null.
    virtual HTTPStream* open(bool send) = 0;
    // Opens a HEAD request, answering a proxy's 407 with credentials from the proxy subsystem.
    virtual HTTPStream* openHead(bool send) = 0;
    // The response's status code; 0 when it cannot be read.
    virtual uint32_t statusCode() = 0;
    virtual const wchar_t* httpVersion() = 0;
    // The Content-Type header, or null.
    virtual const wchar_t* contentType() = 0;
    // Copies the raw response headers; *length (bytes) on success, UINT32_MAX on failure.
    virtual uint32_t rawHeaders(void* buffer, uint32_t* length) = 0;
    // Sends the open request: length 0 without a range, INT64_MAX from the position to the end,
    // otherwise the range position..position+length (both ends included).
    virtual bool sendRequest(int64_t length) = 0;
    // Closes everything and reopens from the position with an open-ended range; itself or null.
    virtual HTTPStream* reconnect() = 0;
    virtual uint32_t connectTimeout() = 0;
    virtual void setTimeouts(uint32_t ms) = 0;
    // The same as position(); the table holds it twice.
    virtual int64_t currentPosition() = 0;
    // Where the useful data of the resource begins.
    virtual uint32_t dataStart() = 0;
    virtual void url(std::wstring& out) = 0;

protected:
    HTTPStream() = default;
};
