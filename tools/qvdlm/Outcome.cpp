#include "Outcome.h"

#include <cwchar>

#include "QvDLMCodes.h"

namespace qvcli {

Outcome classify(uint32_t state, bool threadAlive)
{
    namespace st = qvdlm::state;
    switch (state) {
    case st::Completed:
        return Outcome::Completed;
    case st::Aborted:
    case st::Removed:
        return Outcome::Failed;
    case st::Aborting:
        return threadAlive ? Outcome::Running : Outcome::Failed;
    case st::Exiting:
        return threadAlive ? Outcome::Running : Outcome::Stopped;
    case st::Completing:
        return Outcome::Running;
    case st::Play:
        // Playing without a control thread: its stages could not be opened.
        return threadAlive ? Outcome::Running : Outcome::Failed;
    case st::Init:
        return threadAlive ? Outcome::Running : Outcome::Waiting;
    case st::Pending:
        return Outcome::Waiting;
    case st::Paused:
        return Outcome::Paused;
    default:
        return threadAlive ? Outcome::Running : Outcome::Failed;
    }
}

bool isFinal(Outcome outcome)
{
    return outcome == Outcome::Completed || outcome == Outcome::Failed || outcome == Outcome::Stopped;
}

std::wstring statusText(uint32_t status)
{
    if (status == qvdlm::status::None)
        return {};
    if (const wchar_t* text = qvdlm::messageText(qvdlm::messageForStatus(status)); text && *text) {
        // Codes of the stages have no message of their own; keep the number visible for them.
        if (qvdlm::messageForStatus(status) != qvdlm::msg::GeneralError || status == qvdlm::status::GeneralError)
            return text;
        wchar_t buffer[64];
        std::swprintf(buffer, std::size(buffer), L"%ls, code 0x%08X", text, static_cast<unsigned>(status));
        return buffer;
    }
    wchar_t buffer[32];
    std::swprintf(buffer, std::size(buffer), L"code 0x%08X", static_cast<unsigned>(status));
    return buffer;
}

std::wstring stateWord(uint32_t state, uint32_t status, bool unpacking)
{
    namespace st = qvdlm::state;
    switch (state) {
    case st::Completed: return L"completed";
    case st::Aborted: return L"failed";
    case st::Removed: return L"removed";
    case st::Aborting:
    case st::Exiting: return L"stopping";
    case st::Completing: return L"finishing";
    case st::Pending: return L"queued";
    case st::Init: return L"starting";
    case st::Play: return unpacking ? L"unpacking" : L"downloading";
    case st::Paused:
        switch (status) {
        case qvdlm::status::NetworkDisconnected:
        case qvdlm::status::NetworkReconnecting:
        case qvdlm::status::NetworkError:
        case qvdlm::status::ServerNotResponding: return L"waiting for network";
        case qvdlm::status::OutOfDiskSpace: return L"paused, disk full";
        default: return L"paused";
        }
    default: {
        wchar_t buffer[32];
        std::swprintf(buffer, std::size(buffer), L"state 0x%08X", static_cast<unsigned>(state));
        return buffer;
    }
    }
}

std::wstring storedStateWord(uint32_t state)
{
    return state == qvdlm::state::Completed ? L"completed" : state == qvdlm::state::Aborted ? L"failed" : L"stopped";
}

} // namespace qvcli
