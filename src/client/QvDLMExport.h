// Export attribute of everything QvDLM.dll offers to its clients.
#pragma once

#if defined(QVDLM_BUILDING)
#define QVDLM_API __declspec(dllexport)
#else
#define QVDLM_API __declspec(dllimport)
#endif

#define QVDLM_C_API extern "C" QVDLM_API
