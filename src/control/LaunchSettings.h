// Launch settings carried by a package: a "dlm.ini" anywhere in the unpacked files says what the client
// may run once the download has completed. The library only reads them into the request.
#pragma once

#include <string>

class DownloadRequest;
class DownloadRequestLog;

namespace qv {

// The first "dlm.ini" in folder or its subfolders, depth first in listing order; empty when none.
std::wstring findLaunchFile(const std::wstring& folder);

// Reads the launch file found in the request's destination folder into EXE_PATH, EXE_PARAM and
// AUTO_OPEN and has the store save them. Without a launch file nothing changes. True when one was read.
bool applyLaunchSettings(DownloadRequest* request, DownloadRequestLog* store);

} // namespace qv
