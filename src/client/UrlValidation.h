// Checks a request's URL before it is fetched: the host must be trusted and the server must answer a
// HEAD request with a usable size.
#pragma once

#include "DownloadRequest.h"
#include "QvDLMExport.h"

// 0 when the URL is valid, otherwise one of qvdlm::validation's codes: 2 untrusted host or unusable
// answer, 4 forbidden, 17/18/19 not connected, 20 proxy authentication required. Records the size the
// server reported in the request (0 unless it answered 200). Each failure except 20 is also published
// as one text event.
QVDLM_API unsigned long validateUrl(DownloadRequest* request);
