#include "interrupt.h"

#include <csignal>

namespace ostrel_tool {

namespace {

volatile std::sig_atomic_t g_signal = 0;

struct sigaction g_previous_int;
struct sigaction g_previous_term;
bool g_installed_int = false;
bool g_installed_term = false;

extern "C" void on_interrupt(int signal) { g_signal = signal; }

// Installs the handler unless the signal is ignored; SA_RESETHAND makes the
// next signal take its default action. No SA_RESTART: a blocking read (a
// list on standard input) returns, so the run notices the request.
bool install(int signal, struct sigaction &previous) {
    if (::sigaction(signal, nullptr, &previous) != 0 || previous.sa_handler == SIG_IGN) {
        return false;
    }
    struct sigaction action {};
    action.sa_handler = on_interrupt;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESETHAND;
    return ::sigaction(signal, &action, nullptr) == 0;
}

}  // namespace

InterruptGuard::InterruptGuard() {
    g_installed_int = install(SIGINT, g_previous_int);
    g_installed_term = install(SIGTERM, g_previous_term);
}

InterruptGuard::~InterruptGuard() {
    if (g_installed_int) {
        ::sigaction(SIGINT, &g_previous_int, nullptr);
    }
    if (g_installed_term) {
        ::sigaction(SIGTERM, &g_previous_term, nullptr);
    }
    g_installed_int = g_installed_term = false;
}

bool InterruptGuard::requested() { return g_signal != 0; }
int InterruptGuard::signal_number() { return static_cast<int>(g_signal); }
void InterruptGuard::reset() { g_signal = 0; }

}  // namespace ostrel_tool
