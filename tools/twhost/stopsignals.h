// SIGINT and SIGTERM of a twhost command, taken synchronously by the thread that makes the
// object: they are blocked from then on, so threads started afterwards inherit the mask
// and the signals never land in them, and they are read from a descriptor, so that a wait
// for input can end on a signal too. The destructor spends any signal still pending (the
// work it asked for is done) and restores the mask.
#ifndef TWHOST_STOPSIGNALS_H
#define TWHOST_STOPSIGNALS_H

#include <signal.h>

class StopSignals {
public:
    StopSignals();
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    // False when the descriptor could not be made (Wait then only sleeps).
    bool Ok() const { return m_Fd >= 0; }
    int GetFd() const { return m_Fd; }
    // The signal that came, 0 for none; does not wait.
    int Take();
    // Waits up to timeoutMs (forever when negative) for a stop signal; the signal, or 0.
    // A Wake from another thread ends the wait early, with 0.
    int Wait(int timeoutMs);
    // Ends the current or the next Wait at once; for other threads that have news for the
    // waiting one (the end of the data), so that it need not look every few milliseconds.
    // Safe from any thread.
    void Wake();
    // False when Wake cannot end a Wait (no descriptor to wake it by): a waiter that counts
    // on being woken must then look again soon by itself.
    bool CanWake() const { return m_Fd >= 0 && m_WakeFd >= 0; }
    // "interrupted" for SIGINT, "terminated" for SIGTERM.
    static const char* Why(int sig) { return sig == SIGINT ? "interrupted" : "terminated"; }

private:
    sigset_t m_Set;
    sigset_t m_OldMask;
    int m_Fd = -1;
    int m_WakeFd = -1;   // eventfd of Wake
};

#endif
