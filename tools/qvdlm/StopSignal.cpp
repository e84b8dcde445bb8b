#include "StopSignal.h"

#include <windows.h>

#include <atomic>

namespace qvcli::stopSignal {

namespace {

std::atomic<bool> g_requested{false};
HANDLE g_done = nullptr; // lives until process exit: the handler may run on its own thread until then

BOOL WINAPI onControl(DWORD type)
{
    const bool again = g_requested.exchange(true);
    switch (type) {
    case CTRL_C_EVENT:
    case CTRL_BREAK_EVENT:
        // A second Ctrl+C while stopping falls through to the default handler, which ends the process.
        return again ? FALSE : TRUE;
    default:
        // The console is closing: the process ends when this handler returns, so give the main
        // thread a few seconds to stop the downloads cleanly.
        if (g_done)
            WaitForSingleObject(g_done, 4500);
        return FALSE;
    }
}

} // namespace

void install()
{
    if (!g_done)
        g_done = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    SetConsoleCtrlHandler(onControl, TRUE);
}

bool requested() { return g_requested.load(); }

void request() { g_requested = true; }

void done()
{
    if (g_done)
        SetEvent(g_done);
}

} // namespace qvcli::stopSignal
