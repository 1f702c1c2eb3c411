// Status records of devices, kept by the host in System V shared memory so that every
// daemon of the recorder (and the plug-in inside them) sees the same manual operations.
#pragma once

constexpr int TW_DEV_MAX_DO_PORTS = 32;

// The manual-operation part of a device's status: whether a user triggered audio out on
// the device, and per digital output the state of the last manual command (2 = a manual
// command is pending; 0 = none). The record is plain data so that it can live in shared
// memory; the accessors are atomic because several processes and threads use it at once.
class TWDevStatus {
public:
    TWDevStatus();

    bool IsManualAOTrig() const;
    void SetManualAOTrig(bool blTrig);
    // A port outside 0 .. TW_DEV_MAX_DO_PORTS - 1 reads as 0 and is never written.
    int GetManualDOSts(int port) const;
    void SetManualDOSts(int port, int state);

private:
    int m_ManualAOTrig;
    int m_ManualDOSts[TW_DEV_MAX_DO_PORTS];
};

// The status record of an I/O module.
class IOModuleStatus : public TWDevStatus {};

// Attaches the status record of a device (camera, IP speaker or I/O module: one id space)
// with shmat; null when the host has no record for the id. The caller detaches it with
// shmdt.
TWDevStatus* TWCamStatusAt(int devId);
