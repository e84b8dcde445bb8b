// QvDLM: download manager library. Include this header to use everything the library offers.
#pragma once

#include "Download.h"
#include "DownloadMgr.h"
#include "DownloadRequest.h"
#include "DownloadRequestLog.h"
#include "EventPublisher.h"
#include "EventSubscriber.h"
#include "Log.h"
#include "QrvlProxy.h"
#include "QvDLMCodes.h"
#include "QvDLMExport.h"
#include "QvDLMFactory.h"
#include "StartAkamai.h"
#include "Stats.h"
#include "UrlAuth.h"
#include "UrlValidation.h"
