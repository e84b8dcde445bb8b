// Why something failed, in the user's terms, and the exit status that goes with each kind of failure
// (documented in the help text and the README, like curl's and wget's).
#pragma once

#include <cstdint>
#include <string>

namespace qvcli {

namespace exitcode {
constexpr int Ok = 0;
constexpr int Failed = 1;     // any other failure
constexpr int Usage = 2;      // bad command line
constexpr int Stopped = 3;    // stopped with progress kept (Ctrl+C, --timeout)
constexpr int Network = 4;    // cannot resolve or connect, connection lost, proxy
constexpr int Untrusted = 5;  // the host is not on the library's list of trusted hosts
constexpr int HttpError = 6;  // the server answered with an error status (404, 403, 500, ...)
constexpr int LocalFiles = 7; // destination not writable, path too long, disk full
constexpr int Damaged = 8;    // the package cannot be decompressed or unpacked
} // namespace exitcode

struct Failure {
    int exitCode = exitcode::Ok; // Ok: nothing failed
    std::wstring text;           // "http://host/a.bin: 404 Not Found"
};

// "404 Not Found"; the number alone for a status without a common reason phrase.
std::wstring httpStatusText(int status);

// "host" or "host:port" of a URL.
std::wstring hostOf(const std::wstring& url);

// What one of the library's validation lines ("validateUrl: ...") reports; Ok when it reports no failure.
Failure failureFromValidationLine(const std::wstring& line);

// Why a URL was refused before its download started: its validation line when there is one, else the
// validation result.
Failure refusedUrl(unsigned result, const std::wstring& url, const std::wstring& line);

// Why the manager could not prepare a download in dest (the system error it left).
Failure failureToPrepare(unsigned long error, const std::wstring& dest, const std::wstring& systemText);

// Why a download ended without its files, from its status, the last error of its stages and the last
// status message it reported (validation lines are asked first, by the caller).
Failure failureOfDownload(uint32_t status, uint32_t streamError, uint32_t lastMessage, const std::wstring& dest);

} // namespace qvcli
