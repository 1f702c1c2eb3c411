// Device status records in System V shared memory.
#include "twhost/devstatus.h"

#include <new>

#include "twhost/shmfifo.h"

static_assert(sizeof(IOModuleStatus) == sizeof(TWDevStatus),
              "an I/O module's status is the device status record itself");

TWDevStatus::TWDevStatus() : m_ManualAOTrig(0), m_ManualDOSts() {}

bool TWDevStatus::IsManualAOTrig() const {
    return __atomic_load_n(&m_ManualAOTrig, __ATOMIC_ACQUIRE) != 0;
}

void TWDevStatus::SetManualAOTrig(bool blTrig) {
    __atomic_store_n(&m_ManualAOTrig, blTrig ? 1 : 0, __ATOMIC_RELEASE);
}

int TWDevStatus::GetManualDOSts(int port) const {
    if (port < 0 || port >= TW_DEV_MAX_DO_PORTS) return 0;
    return __atomic_load_n(&m_ManualDOSts[port], __ATOMIC_ACQUIRE);
}

void TWDevStatus::SetManualDOSts(int port, int state) {
    if (port < 0 || port >= TW_DEV_MAX_DO_PORTS) return;
    __atomic_store_n(&m_ManualDOSts[port], state, __ATOMIC_RELEASE);
}

TWDevStatus* TWCamStatusAt(int devId) {
    key_t key = 0;
    std::string error;
    if (!tw::host::DeviceShmKey(tw::host::ShmKeySpace::DevStatus, devId, key, error)) {
        return nullptr;
    }
    return static_cast<TWDevStatus*>(tw::host::ShmSegment::Attach(key, sizeof(TWDevStatus)));
}

namespace tw::host {

bool DevStatusRecord::Open(std::string& error) {
    key_t key = 0;
    if (!DeviceShmKey(ShmKeySpace::DevStatus, m_DevId, key, error)) return false;
    if (!m_Segment.Create(key, sizeof(TWDevStatus),
                          "status record of device " + std::to_string(m_DevId), error)) {
        return false;
    }
    new (m_Segment.Record()) IOModuleStatus();
    return true;
}

}  // namespace tw::host
