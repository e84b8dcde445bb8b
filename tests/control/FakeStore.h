// The library's own request store, over a file that the test opens (an unopened one stores nothing).
#pragma once

#include "request/DownloadRequestLogImp.h"

using FakeStore = DownloadRequestLogImp;
