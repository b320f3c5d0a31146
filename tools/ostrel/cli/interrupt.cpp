#include "cli/interrupt.h"

#include <csignal>

namespace ostrel_tool {

namespace {

volatile std::sig_atomic_t g_signal = 0;

extern "C" void on_interrupt(int signal) { g_signal = signal; }

#ifdef _WIN32
// The C runtime of Windows has signal() only; it puts the default action
// back before it calls the handler, as SA_RESETHAND does below.
using SavedAction = void (*)(int);

bool install(int signal, SavedAction &previous) {
    previous = std::signal(signal, on_interrupt);
    if (previous == SIG_IGN || previous == SIG_ERR) {
        if (previous == SIG_IGN) {
            std::signal(signal, SIG_IGN);
        }
        return false;
    }
    return true;
}

void restore(int signal, const SavedAction &previous) { std::signal(signal, previous); }
#else
using SavedAction = struct sigaction;

// Installs the handler unless the signal is ignored; SA_RESETHAND makes the
// next signal take its default action. No SA_RESTART: a blocking read (a
// list on standard input) returns, so the run notices the request.
bool install(int signal, SavedAction &previous) {
    if (::sigaction(signal, nullptr, &previous) != 0 || previous.sa_handler == SIG_IGN) {
        return false;
    }
    struct sigaction action {};
    action.sa_handler = on_interrupt;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESETHAND;
    return ::sigaction(signal, &action, nullptr) == 0;
}

void restore(int signal, const SavedAction &previous) { ::sigaction(signal, &previous, nullptr); }
#endif

SavedAction g_previous_int;
SavedAction g_previous_term;
bool g_installed_int = false;
bool g_installed_term = false;

}  // namespace

InterruptGuard::InterruptGuard() {
    g_installed_int = install(SIGINT, g_previous_int);
    g_installed_term = install(SIGTERM, g_previous_term);
}

InterruptGuard::~InterruptGuard() {
    if (g_installed_int) {
        restore(SIGINT, g_previous_int);
    }
    if (g_installed_term) {
        restore(SIGTERM, g_previous_term);
    }
    g_installed_int = g_installed_term = false;
}

bool InterruptGuard::requested() { return g_signal != 0; }
int InterruptGuard::signal_number() { return static_cast<int>(g_signal); }
void InterruptGuard::reset() { g_signal = 0; }

}  // namespace ostrel_tool
