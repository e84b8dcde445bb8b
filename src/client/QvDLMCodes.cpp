// The text and mapping tables of the library's codes.
#include "QvDLMCodes.h"

#include <iterator>

namespace qvdlm {

namespace {

struct MessageEntry {
    uint32_t id;
    const wchar_t* text;
};

constexpr MessageEntry kMessages[] = {
    {msg::OpenFailure, L"open failure"},
    {msg::DownloadStarted, L"download started"},
    {msg::DecompressStarted, L"decompress started"},
    {msg::UnpackageStarted, L"unpackage started"},
    {msg::NetworkDisconnected, L"network disconnected"},
    {msg::NetworkConnecting, L"network connecting"},
    {msg::NetworkConnected, L"network connected"},
    {msg::ServerNotResponse, L"server not response"},
    {msg::NetworkError, L"network error"},
    {msg::DownloadCompleted, L"download completed"},
    {msg::DecompressCompleted, L"decompress completed"},
    {msg::UnpackageCompleted, L"unpackage completed"},
    {msg::DecompressAborted, L"decompress aborted"},
    {msg::OutOfDiskSpace, L"out of disk space"},
    {msg::DecompressFailed, L"decompress failed"},
    {msg::UnpackageFailed, L"unpackage failed"},
    {msg::ProxyNeedAuthentication, L"proxy need authentication"},
    {msg::RestoreFailed, L"restore failed"},
    {msg::GeneralError, L"general error"},
    {msg::AkamaiFallback, L"Akamai download fall back to Http download"},
};

constexpr const wchar_t* kStateNames[] = {
    L"download pending",    L"download init",    L"download play",
    L"download paused",     L"download completing", L"download exiting",
    L"download aborting",   L"download aborted", L"download removed",
};

struct StatusEntry {
    uint32_t status;
    uint32_t message;
};

// Status codes with a message of their own; every other error code reports "general error".
constexpr StatusEntry kStatusMessages[] = {
    {status::OpenFailure, msg::OpenFailure},
    {status::ServerNotResponding, msg::ServerNotResponse},
    {status::NetworkDisconnected, msg::NetworkDisconnected},
    {status::NetworkError, msg::NetworkError},
    {status::OutOfDiskSpace, msg::OutOfDiskSpace},
    {status::ProxyAuthRequired, msg::ProxyNeedAuthentication},
    {status::RestoreFailed, msg::RestoreFailed},
};

// How the manager records the status messages its downloads report.
constexpr StatusEntry kMessageStatuses[] = {
    {status::NetworkDisconnected, msg::NetworkDisconnected},
    {status::NetworkReconnecting, msg::NetworkConnecting},
    {status::ServerNotResponding, msg::ServerNotResponse},
    {status::NetworkError, msg::NetworkError},
    {status::RestoreFailed, msg::RestoreFailed},
};

} // namespace

const wchar_t* messageText(uint32_t message)
{
    for (const auto& entry : kMessages)
        if (entry.id == message)
            return entry.text;
    return nullptr;
}

const wchar_t* stateName(uint32_t value)
{
    if (value == state::Completed)
        return L"download completed";
    if (value >= state::Pending && value <= state::Removed)
        return kStateNames[value - state::Pending];
    return nullptr;
}

uint32_t messageForStatus(uint32_t code)
{
    if (code == status::None)
        return 0;
    for (const auto& entry : kStatusMessages)
        if (entry.status == code)
            return entry.message;
    return msg::GeneralError;
}

uint32_t messageForStateStatus(uint32_t downloadState, uint32_t code)
{
    if (code == status::NetworkReconnecting) {
        if (downloadState == state::Paused)
            return 0;
        if (downloadState == state::Aborted)
            return msg::NetworkConnecting;
    }
    return messageForStatus(code);
}

uint32_t statusForMessage(uint32_t message)
{
    for (const auto& entry : kMessageStatuses)
        if (entry.message == message)
            return entry.status;
    return 0;
}

ValidationOutcome validationOutcome(uint32_t result)
{
    switch (result) {
    case validation::Ok:
        return {status::None, 0, 0, true};
    case validation::OpenFailure:
        return {status::OpenFailure, msg::OpenFailure, event::StatusMessage, true};
    case validation::ServerNotResponding:
        return {status::ServerNotResponding, msg::ServerNotResponse, event::StatusMessage, true};
    case validation::NetworkDisconnected:
        // Deliberately "server not responding" as the code but "network disconnected" as the message.
        return {status::ServerNotResponding, msg::NetworkDisconnected, event::StatusMessage, true};
    case validation::NetworkError:
        return {status::NetworkError, msg::NetworkError, event::StatusMessage, true};
    case validation::ProxyAuthRequired:
        return {status::ProxyAuthRequired, msg::ProxyNeedAuthentication, event::Error, false};
    default:
        return {status::GeneralError, msg::GeneralError, event::StatusMessage, true};
    }
}

static_assert(std::size(kStateNames) == state::Removed - state::Pending + 1);

} // namespace qvdlm
