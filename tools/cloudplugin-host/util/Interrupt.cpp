#include "util/Interrupt.h"

#include <atomic>
#include <csignal>

#ifdef _WIN32
#include <windows.h>
#endif

namespace qvhost {

namespace {

std::atomic<bool> g_interrupted{false};

#ifdef _WIN32
BOOL WINAPI OnConsoleEvent(DWORD) {
    g_interrupted = true;
    return TRUE;
}
#else
extern "C" void OnSignal(int) { g_interrupted = true; }
#endif

}  // namespace

void InstallInterruptHandler() {
#ifdef _WIN32
    SetConsoleCtrlHandler(OnConsoleEvent, TRUE);
#else
    struct sigaction action {};
    action.sa_handler = OnSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
#endif
}

bool Interrupted() { return g_interrupted.load(); }

}  // namespace qvhost
