#include "stopsignals.h"

#include <poll.h>
#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>

StopSignals::StopSignals() {
    sigemptyset(&m_Set);
    sigaddset(&m_Set, SIGINT);
    sigaddset(&m_Set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &m_Set, &m_OldMask);
    m_Fd = signalfd(-1, &m_Set, SFD_CLOEXEC | SFD_NONBLOCK);
}

StopSignals::~StopSignals() {
    while (Take() != 0) {
    }
    if (m_Fd >= 0) close(m_Fd);
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
    pollfd p{m_Fd, POLLIN, 0};
    int rc;
    do {
        rc = poll(&p, 1, timeoutMs);
    } while (rc < 0 && errno == EINTR);
    return rc > 0 ? Take() : 0;
}
