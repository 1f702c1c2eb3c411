// An I/O module in this process, for tests and for `twhost ioaction` without hardware.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "twhost/clock.h"
#include "twhost/iomodule.h"

namespace tw::host {

IOModuleEmulator::IOModuleEmulator(int doCount)
    : m_DOCount(doCount < 0 ? 0 : doCount), m_PortStates(static_cast<size_t>(m_DOCount), false) {}

bool IOModuleEmulator::SetDigitalOutput(int idx, bool state, std::string& error) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (m_blRefuseDO) {
        error = "the I/O module emulator refuses digital output " + std::to_string(idx);
        return false;
    }
    if (idx < 0 || idx >= m_DOCount) {
        error = "digital output " + std::to_string(idx) +
                (m_DOCount == 0 ? std::string(" out of range: the module has no digital outputs")
                                : " out of range 0.." + std::to_string(m_DOCount - 1));
        return false;
    }
    m_PortStates[static_cast<size_t>(idx)] = state;
    m_PortHistory.push_back(PortEvent{GetClock().NowUs(), idx, state});
    return true;
}

bool IOModuleEmulator::StartFileAudioOut(const std::string& filePath, bool isManual, std::string& error) {
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        if (m_blRefuseAudio) {
            error = "the I/O module emulator refuses audio out of '" + filePath + "'";
            return false;
        }
    }
    // A module daemon reads the file it is told to play; one that is not there, or not
    // readable, or not a file, cannot be played.
    const int fd = open(filePath.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        error = "cannot open audio file '" + filePath + "': " + strerror(errno);
        return false;
    }
    struct stat st {};
    const bool regular = fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    close(fd);
    if (!regular) {
        error = "audio file '" + filePath + "' is not a regular file";
        return false;
    }
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_AudioPlays.push_back(AudioPlay{GetClock().NowUs(), filePath, isManual});
    return true;
}

std::string IOModuleEmulator::Describe() const {
    return "I/O module emulator with " + std::to_string(m_DOCount) + " digital output" +
           (m_DOCount == 1 ? "" : "s");
}

bool IOModuleEmulator::GetDigitalOutput(int idx, bool& state, std::string& error) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (idx < 0 || idx >= m_DOCount) {
        error = "digital output " + std::to_string(idx) + " out of range 0.." + std::to_string(m_DOCount - 1);
        return false;
    }
    state = m_PortStates[static_cast<size_t>(idx)];
    return true;
}

std::vector<IOModuleEmulator::PortEvent> IOModuleEmulator::PortHistory() const {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_PortHistory;
}

bool IOModuleEmulator::PortState(int idx) const {
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (idx < 0 || idx >= m_DOCount) return false;
    return m_PortStates[static_cast<size_t>(idx)];
}

std::vector<IOModuleEmulator::AudioPlay> IOModuleEmulator::AudioPlays() const {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_AudioPlays;
}

void IOModuleEmulator::SetRefuseDigitalOutput(bool blRefuse) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_blRefuseDO = blRefuse;
}

void IOModuleEmulator::SetRefuseAudioOut(bool blRefuse) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_blRefuseAudio = blRefuse;
}

}  // namespace tw::host
