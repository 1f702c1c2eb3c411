// Device records of the audio-out services, and the IP speaker and I/O module records of
// the recorder's API.
#include "twhost/devices.h"

#include <cstdio>
#include <cstring>

#include "twhost/audiosink.h"

namespace tw::host {

DeviceKind DeviceKindOfType(int devType) {
    if (devType == DEV_TYPE_IOMODULE) return DeviceKind::IOModule;
    if (devType == DEV_TYPE_SPEAKER) return DeviceKind::Speaker;
    return DeviceKind::Camera;
}

const char* DeviceKindName(DeviceKind kind) {
    switch (kind) {
    case DeviceKind::Speaker: return "IP speaker";
    case DeviceKind::IOModule: return "I/O module";
    default: return "camera";
    }
}

DeviceStore& DeviceStore::Instance() {
    static DeviceStore store;
    return store;
}

void DeviceStore::Put(DeviceKind kind, int id, const AudioDeviceRecord& record) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Records[KeyOf(kind, id)] = record;
}

void DeviceStore::Remove(DeviceKind kind, int id) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Records.erase(KeyOf(kind, id));
}

std::optional<AudioDeviceRecord> DeviceStore::Get(DeviceKind kind, int id) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    auto it = m_Records.find(KeyOf(kind, id));
    if (it == m_Records.end()) return std::nullopt;
    return it->second;
}

void DeviceStore::Clear() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Records.clear();
    m_ActiveSinks.clear();
}

std::shared_ptr<AudioSink> DeviceStore::GetActiveSink(DeviceKind kind, int id) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    auto it = m_ActiveSinks.find(KeyOf(kind, id));
    return it == m_ActiveSinks.end() ? nullptr : it->second.lock();
}

void DeviceStore::NoteActiveSink(DeviceKind kind, int id, const std::shared_ptr<AudioSink>& sink) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_ActiveSinks[KeyOf(kind, id)] = sink;
}

}  // namespace tw::host

namespace {

// Copies a name into a fixed field, always terminated.
void CopyName(char* field, size_t size, const std::string& name) {
    std::memset(field, 0, size);
    std::snprintf(field, size, "%s", name.c_str());
}

}  // namespace

IPSpeaker::IPSpeaker() : id(0) { std::memset(szName, 0, sizeof(szName)); }

int IPSpeaker::Load(int speakerId) {
    std::optional<tw::host::AudioDeviceRecord> record =
        tw::host::DeviceStore::Instance().Get(tw::host::DeviceKind::Speaker, speakerId);
    if (!record) return -1;
    id = speakerId;
    CopyName(szName, sizeof(szName), record->strName);
    return 0;
}

IOModule::IOModule() : id(0), doCount(0) { std::memset(szName, 0, sizeof(szName)); }

int IOModule::Load(int moduleId) {
    std::optional<tw::host::AudioDeviceRecord> record =
        tw::host::DeviceStore::Instance().Get(tw::host::DeviceKind::IOModule, moduleId);
    if (!record) return -1;
    id = moduleId;
    CopyName(szName, sizeof(szName), record->strName);
    doCount = record->doCount;
    return 0;
}
