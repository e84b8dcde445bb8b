// Helpers of the whole-download tests (public interface only): the download tests' files, served by
// the fault server (fixture control_range_server), tree comparison and waits.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "QvDLM.h"
#include "support/TestServers.h"

namespace e2e {

std::wstring servedFolder();                      // the folder of the download tests' files
std::wstring serverUrl(const std::wstring& path); // a URL that serves one of them (path may carry a query)
bool sameFile(const std::wstring& expected, const std::wstring& actual);
// Every file under expected has a byte-identical twin under actual (extra files in actual are allowed).
::testing::AssertionResult sameTree(const std::wstring& expected, const std::wstring& actual);
bool hasEntry(const std::wstring& folder, const std::wstring& prefix); // an entry whose name begins with prefix
bool waitFor(const std::function<bool()>& done, DWORD timeoutMs);

} // namespace e2e
