// The host's side of the device status records (tw/devstatus.h): the process that owns a
// device's record creates it in shared memory; every other user attaches it with
// TWCamStatusAt.
#pragma once

#include <string>

#include "tw/devstatus.h"
#include "twhost/shmsegment.h"

namespace tw::host {

class DevStatusRecord {
public:
    explicit DevStatusRecord(int devId) : m_DevId(devId) {}

    // Creates the record (all clear), or takes over one left by an owner that is gone.
    bool Open(std::string& error);
    void Close() { m_Segment.Remove(); }

    // The record, null before Open. An I/O module's record is the same record.
    TWDevStatus* Get() const { return static_cast<TWDevStatus*>(m_Segment.Record()); }
    IOModuleStatus* GetIOModuleStatus() const {
        return static_cast<IOModuleStatus*>(m_Segment.Record());
    }
    int GetDevId() const { return m_DevId; }

private:
    int m_DevId;
    ShmSegment m_Segment;
};

}  // namespace tw::host
