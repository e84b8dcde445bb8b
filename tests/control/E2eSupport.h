// Helpers of the end-to-end download tests: the test file server's files, events, waits and tree
// comparison. Only the library's public interface is used.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "QvDLM.h"
#include "support/TestSupport.h"

namespace e2e {

// The folder that the test file server serves, as this process sees it.
std::wstring servedFolder();
// A URL of the test file server (port base + 5); "slow/" in front limits it to 16 MiB/s.
std::wstring serverUrl(const std::wstring& path);
// A path in the long form when it needs one.
std::wstring longPath(const std::wstring& path);

bool sameFile(const std::wstring& expected, const std::wstring& actual);
// Every file under expected has a byte-identical twin under actual (extra files in actual are allowed).
::testing::AssertionResult sameTree(const std::wstring& expected, const std::wstring& actual);
// The entries directly in folder whose names begin with prefix.
std::vector<std::wstring> entriesStartingWith(const std::wstring& folder, const std::wstring& prefix);

bool waitFor(const std::function<bool()>& done, DWORD timeoutMs);

// Records the state changes of every download, in order.
class StateLog final : public EventSubscriber {
public:
    StateLog() { EventPublisher::getInstance()->subscribe(this); }
    ~StateLog() { EventPublisher::getInstance()->unsubscribe(this); }
    StateLog(const StateLog&) = delete;
    StateLog& operator=(const StateLog&) = delete;
    void notify(const EventRecord* record) override;
    // Position of the first change of d into state in the log, or -1.
    int indexOf(Download* d, unsigned state);

private:
    CRITICAL_SECTION lock_ = [] {
        CRITICAL_SECTION cs;
        InitializeCriticalSection(&cs);
        return cs;
    }();
    std::vector<std::pair<Download*, unsigned>> changes_;
};

// A child process whose standard output is read line by line.
class ChildProcess {
public:
    explicit ChildProcess(const std::wstring& commandLine);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    bool started() const { return process_ != nullptr; }
    // The next line, or false at the end of the output or after timeoutMs.
    bool readLine(std::string& line, DWORD timeoutMs);
    void kill();
    DWORD wait(DWORD timeoutMs);

private:
    HANDLE process_ = nullptr;
    HANDLE output_ = nullptr;
    std::string pending_;
};

// The driver program beside this test program.
std::wstring driverPath();

} // namespace e2e
