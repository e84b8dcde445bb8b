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

std::wstring describe(uint32_t state, uint32_t status)
{
    const wchar_t* name = qvdlm::stateName(state);
    std::wstring text;
    if (name) {
        text = name;
    } else {
        wchar_t buffer[32];
        std::swprintf(buffer, std::size(buffer), L"state 0x%08X", static_cast<unsigned>(state));
        text = buffer;
    }
    // Reconnecting is no error while paused: the library is still trying.
    const bool quiet = state == qvdlm::state::Paused && status == qvdlm::status::NetworkReconnecting;
    if (status != qvdlm::status::None && !quiet)
        text += L" (" + statusText(status) + L")";
    return text;
}

} // namespace qvcli
