// Ctrl-C (SIGINT) and SIGTERM during a batch run: the first one only sets a
// flag, which the run checks before handing out more work; the signal's
// default action is put back at once, so a second Ctrl-C ends the process
// as usual. A signal the process was started with ignored (a background job
// of a shell without job control, nohup) stays ignored.
#pragma once

namespace ostrel_tool {

class InterruptGuard {
public:
    InterruptGuard();   // installs the handlers
    ~InterruptGuard();  // restores what was there before
    InterruptGuard(const InterruptGuard &) = delete;
    InterruptGuard &operator=(const InterruptGuard &) = delete;

    // True once SIGINT or SIGTERM arrived while a guard was installed.
    static bool requested();
    // The signal that arrived (0 when none).
    static int signal_number();
    // Forgets an earlier request (a new run in the same process, tests).
    static void reset();
};

}  // namespace ostrel_tool
