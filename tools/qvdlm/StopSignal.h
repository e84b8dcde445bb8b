// Ctrl+C, Ctrl+Break and closing the console window ask qvdlm to stop keeping progress: running
// downloads are stopped with their checkpoints kept, so that "qvdlm resume" can finish them.
#pragma once

namespace qvcli::stopSignal {

void install();
bool requested();
void request();
// The stop has been carried out: a console that is closing may now end the process.
void done();

} // namespace qvcli::stopSignal
