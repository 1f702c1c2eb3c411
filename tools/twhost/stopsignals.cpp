#include "stopsignals.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>

StopSignals::StopSignals() {
    sigemptyset(&m_Set);
    sigaddset(&m_Set, SIGINT);
    sigaddset(&m_Set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &m_Set, &m_OldMask);
    m_Fd = signalfd(-1, &m_Set, SFD_CLOEXEC | SFD_NONBLOCK);
    m_WakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

StopSignals::~StopSignals() {
    while (Take() != 0) {
    }
    if (m_Fd >= 0) close(m_Fd);
    if (m_WakeFd >= 0) close(m_WakeFd);
    pthread_sigmask(SIG_SETMASK, &m_OldMask, nullptr);
}

int StopSignals::Take() {
    if (m_Fd < 0) return 0;
    signalfd_siginfo info;
    if (read(m_Fd, &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
        return static_cast<int>(info.ssi_signo);
    }
    return 0;
}

int StopSignals::Wait(int timeoutMs) {
    if (m_Fd < 0) {
        if (timeoutMs > 0) usleep(static_cast<useconds_t>(timeoutMs) * 1000);
        return 0;
    }
    pollfd p[2] = {{m_Fd, POLLIN, 0}, {m_WakeFd, POLLIN, 0}};
    const nfds_t count = m_WakeFd >= 0 ? 2 : 1;
    int rc;
    do {
        rc = poll(p, count, timeoutMs);
    } while (rc < 0 && errno == EINTR);
    if (rc <= 0) return 0;
    if (count == 2 && (p[1].revents & POLLIN) != 0) {
        eventfd_t ignored;
        (void)eventfd_read(m_WakeFd, &ignored);
    }
    return (p[0].revents & POLLIN) != 0 ? Take() : 0;
}

void StopSignals::Wake() {
    // Without the eventfd the waiter falls back on its time-out, which it always has.
    if (m_WakeFd >= 0) (void)eventfd_write(m_WakeFd, 1);
}
