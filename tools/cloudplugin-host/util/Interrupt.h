// Ctrl-C and SIGTERM ask the running command to stop: workers finish the
// operation in hand, write nothing more, and the command ends with exit
// status 130 (a backup stopped this way writes no manifest).
#pragma once

namespace qvhost {

void InstallInterruptHandler();
bool Interrupted();

}  // namespace qvhost
