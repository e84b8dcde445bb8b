// A client process killed in the middle of a download (soak_driver ends itself with TerminateProcess
// once it holds the given bytes) leaves a store and checkpoints from which a new process finishes it
// byte-identical, fetching again at most about a checkpoint interval and the link buffers.
#include <gtest/gtest.h>

#include "E2eSupport.h"

namespace {

constexpr uint64_t kLinkBuffer = 0x400000;

struct Outcome {
    DWORD exitCode = 0xFFFFFFFF;
    uint64_t restoredFrom = 0, held = 0;
    std::string last;
};

// Runs the driver with these arguments to its end; what it printed comes back through a file.
Outcome drive(const qvtest::ScratchDir& scratch, const std::wstring& arguments)
{
    wchar_t self[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring command = L"\"" + std::wstring(self).substr(0, std::wstring(self).rfind(L'\\')) + L"\\soak_driver.exe\" " + arguments;
    const std::wstring output = scratch / (L"driver" + std::to_wstring(GetTickCount64()) + L".out");
    SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
    HANDLE file = CreateFileW(output.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherit, CREATE_ALWAYS, 0, nullptr);
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = startup.hStdError = file;
    PROCESS_INFORMATION info{};
    Outcome run;
    if (CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &info)) {
        if (WaitForSingleObject(info.hProcess, 100000) != WAIT_OBJECT_0)
            TerminateProcess(info.hProcess, 99);
        GetExitCodeProcess(info.hProcess, &run.exitCode);
        CloseHandle(info.hThread);
        CloseHandle(info.hProcess);
    }
    CloseHandle(file);
    std::string text;
    qvtest::readFile(output, text);
    for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1) {
        const std::string line = text.substr(at, end - at - (end > at && text[end - 1] == '\r'));
        if (line.rfind("R ", 0) == 0 || line.rfind("P ", 0) == 0 || line.rfind("KILL ", 0) == 0)
            (line[0] == 'R' ? run.restoredFrom : run.held) = std::strtoull(line.c_str() + line.find(' '), nullptr, 10);
        if (line.rfind("DONE", 0) == 0 || line.rfind("KILL", 0) == 0)
            run.last = line;
    }
    return run;
}

TEST(KillTest, AKilledDownloadResumesInANewProcessAndEndsIdentical)
{
    const struct {
        const wchar_t* file;
        uint64_t interval, lag; // what may be fetched again: the interval and the buffers on the way
        std::vector<uint64_t> kills;
    } rows[] = {{L"mid.bin", kLinkBuffer, 3 * kLinkBuffer, {14 << 20, 22 << 20}},
                // killed in the third block, after the first checkpoints; two links lie before the unpacker
                {L"multi_001_003.tar.lzma2", kLinkBuffer, 5 * kLinkBuffer, {16 << 20}}};
    for (const auto& row : rows) {
        SCOPED_TRACE(qvtest::narrow(row.file));
        qvtest::ScratchDir scratch{L"control-kill"};
        const std::wstring store = L"\"" + scratch / L"store\\download.info" + L"\" ", dest = scratch / L"dest";
        Outcome run = drive(scratch, L"start " + store + e2e::serverUrl(row.file) + L"?rate=16777216 \"" + dest + L"\" " +
                                     std::to_wstring(row.interval) + L" @" + std::to_wstring(row.kills[0]) + L" 100");
        for (size_t kill = 1; kill <= row.kills.size(); ++kill) {
            ASSERT_EQ(run.exitCode, 9u) << run.last;
            const uint64_t killedAt = run.held;
            run = drive(scratch, L"resume " + store + (kill < row.kills.size() ? L"@" + std::to_wstring(row.kills[kill]) : L"none") + L" 100");
            EXPECT_GT(run.restoredFrom, 0u);
            EXPECT_LE(killedAt, run.restoredFrom + row.interval + row.lag);
        }
        EXPECT_EQ(run.last.rfind("DONE 0 ", 0), 0u) << run.last;
        EXPECT_EQ(run.exitCode, 0u);
        EXPECT_TRUE(row.file == std::wstring(L"mid.bin") ? e2e::sameFile(e2e::servedFolder() + L"\\mid.bin", dest + L"\\mid.bin")
                                                        : bool(e2e::sameTree(e2e::servedFolder() + L"\\pkgsrc", dest)));
        EXPECT_FALSE(e2e::hasEntry(dest, L"QV_"));
    }
}

} // namespace
