// Starting the local NetSession client, through which requests that ask for it are delivered.
#pragma once

#include "QvDLMExport.h"

// Makes sure the NetSession client runs, running the installer "NSSetup.exe" from the folder of the
// host program when the client asks for it. Blocks while the installer runs and for up to about five
// seconds more; true once the client answers.
QVDLM_C_API bool StartAkamai();
