// Release side of the factory: every object goes back through its virtual destructor, inside the DLL.
#include "QvDLMFactory.h"

#include "Download.h"
#include "DownloadMgr.h"
#include "DownloadRequest.h"
#include "Log.h"
#include "QvDLMCodes.h"

void QvDLM::destroy(Log* log) { delete log; }
void QvDLM::destroy(DownloadMgr* manager) { delete manager; }
void QvDLM::destroy(Download* download) { delete download; }
void QvDLM::destroy(DownloadRequest* request) { delete request; }

bool Download::isErrorCode(unsigned long code) { return qvdlm::isErrorCode(static_cast<uint32_t>(code)); }
