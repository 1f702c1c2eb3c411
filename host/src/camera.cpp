// Camera records, detection settings and event buffers of the reference host.
#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <sstream>

#include "tw/camera.h"
#include "twhost/clock.h"
#include "twhost/eventlog.h"
#include "twhost/stores.h"

Camera::Camera() : id(0), videoCodec(VIDEO_CODEC_UNKNOWN), liveProfile(CAM_PROFILE_HIGH) {
    memset(szName, 0, sizeof(szName));
    for (int& no : uiStreamNo) no = 0;
}

int Camera::Load(int camId, int, int) {
    std::optional<Camera> stored = tw::host::CameraStore::Instance().Get(camId);
    if (!stored) return -1;
    *this = *stored;
    return 0;
}

CAM_PROFILE_TYPE Camera::GetLiveProfile() { return liveProfile; }

int Camera::GetUiStreamNo(CAM_PROFILE_TYPE profile) const {
    if (profile < 0 || profile >= CAM_PROFILE_COUNT) return 0;
    return uiStreamNo[profile];
}

CamDetSetting::CamDetSetting() {
    const tw::host::DetSettingValues defaults;
    m_Sensitivity = defaults.sensitivity;
    m_Threshold = defaults.threshold;
    m_ShortLiveSec = defaults.shortLiveSec;
    memset(m_szRegion, 0, sizeof(m_szRegion));
    memcpy(m_szRegion, defaults.region.data(), std::min<size_t>(defaults.region.size(), TW_DET_REGION_CELLS));
}

CamDetSetting::~CamDetSetting() {}

int CamDetSetting::Load(Camera& camera) {
    std::optional<tw::host::DetSettingValues> stored = tw::host::DetSettingStore::Instance().Get(camera.id);
    if (!stored) return -1;
    m_Sensitivity = stored->sensitivity;
    m_Threshold = stored->threshold;
    m_ShortLiveSec = stored->shortLiveSec;
    memset(m_szRegion, 0, sizeof(m_szRegion));
    memcpy(m_szRegion, stored->region.data(), std::min<size_t>(stored->region.size(), TW_DET_REGION_CELLS));
    return 0;
}

// Only detection set 1 exists in the reference host; other sets read as not configured.
int CamDetSetting::GetSensitivity(int set, int& value) const {
    if (set != 1) return -1;
    value = m_Sensitivity;
    return 0;
}

int CamDetSetting::GetThreshold(int set, int& value) const {
    if (set != 1) return -1;
    value = m_Threshold;
    return 0;
}

int CamDetSetting::GetShortLiveSecond(int set, int& value) const {
    if (set != 1) return -1;
    value = m_ShortLiveSec;
    return 0;
}

int CamDetSetting::GetRegion(int set, char* region, unsigned int size) const {
    if (set != 1 || region == nullptr || size == 0) return -1;
    const size_t n = std::min<size_t>(strnlen(m_szRegion, TW_DET_REGION_CELLS), size - 1);
    memcpy(region, m_szRegion, n);
    region[n] = '\0';
    return 0;
}

struct EventBuf::Impl {
    int camId = 0;
    mutable std::mutex mutex;
    mutable std::condition_variable cond;
    std::vector<tw::host::EventRecord> history;
    tw::host::EventListener listener;
};

EventBuf::EventBuf(int camId) : m_pImpl(new Impl) { m_pImpl->camId = camId; }

EventBuf::~EventBuf() { delete m_pImpl; }

void EventBuf::SetStatus(bool motion, int value) {
    tw::host::EventRecord record{tw::host::GetClock().NowUs(), motion, value};
    tw::host::EventListener listener;
    {
        std::lock_guard<std::mutex> lock(m_pImpl->mutex);
        m_pImpl->history.push_back(record);
        listener = m_pImpl->listener;
    }
    m_pImpl->cond.notify_all();
    if (listener) listener(record);
}

FetcherBase::~FetcherBase() {}

namespace tw::host {

std::vector<EventRecord> GetEventHistory(const EventBuf& buf) {
    std::lock_guard<std::mutex> lock(buf.GetImpl()->mutex);
    return buf.GetImpl()->history;
}

bool WaitForEvents(const EventBuf& buf, size_t n, int timeoutMs) {
    EventBuf::Impl* impl = buf.GetImpl();
    std::unique_lock<std::mutex> lock(impl->mutex);
    return impl->cond.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                               [&] { return impl->history.size() >= n; });
}

void SetEventListener(EventBuf& buf, EventListener listener) {
    std::lock_guard<std::mutex> lock(buf.GetImpl()->mutex);
    buf.GetImpl()->listener = std::move(listener);
}

CameraStore& CameraStore::Instance() {
    static CameraStore store;
    return store;
}

void CameraStore::Put(const Camera& camera) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Cameras[camera.id] = camera;
}

void CameraStore::Remove(int camId) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Cameras.erase(camId);
}

std::optional<Camera> CameraStore::Get(int camId) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    auto it = m_Cameras.find(camId);
    if (it == m_Cameras.end()) return std::nullopt;
    return it->second;
}

void CameraStore::Clear() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Cameras.clear();
}

Camera MakeCamera(int camId, int videoCodec) {
    Camera camera;
    camera.id = camId;
    snprintf(camera.szName, sizeof(camera.szName), "Camera %d", camId);
    camera.videoCodec = videoCodec;
    camera.liveProfile = CAM_PROFILE_HIGH;
    for (int i = 0; i < CAM_PROFILE_COUNT; ++i) camera.uiStreamNo[i] = i;
    return camera;
}

DetSettingStore& DetSettingStore::Instance() {
    static DetSettingStore store;
    return store;
}

void DetSettingStore::Put(int camId, const DetSettingValues& values) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Values[camId] = values;
}

void DetSettingStore::Remove(int camId) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Values.erase(camId);
}

std::optional<DetSettingValues> DetSettingStore::Get(int camId) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    auto it = m_Values.find(camId);
    if (it == m_Values.end()) return std::nullopt;
    return it->second;
}

void DetSettingStore::Clear() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Values.clear();
}

namespace {

bool ParseCell(const std::string& text, int& col, int& row) {
    const size_t comma = text.find(',');
    if (comma == std::string::npos) return false;
    const std::string c = text.substr(0, comma);
    const std::string r = text.substr(comma + 1);
    if (c.empty() || r.empty() || c.find_first_not_of("0123456789") != std::string::npos ||
        r.find_first_not_of("0123456789") != std::string::npos || c.size() > 3 || r.size() > 3)
        return false;
    col = std::stoi(c);
    row = std::stoi(r);
    return true;
}

}  // namespace

bool ParseRegion(const std::string& text, std::string& region, std::string& error) {
    constexpr int kCols = 40;
    constexpr int kRows = 30;
    if (text == "all") {
        region.assign(TW_DET_REGION_CELLS, '1');
        return true;
    }
    if (text == "none") {
        region.assign(TW_DET_REGION_CELLS, '0');
        return true;
    }
    if (text.size() == TW_DET_REGION_CELLS && text.find_first_not_of("01") == std::string::npos) {
        region = text;
        return true;
    }
    if (text.find_first_not_of("01") == std::string::npos) {
        error = "a region of cells must have exactly 1200 characters '0'/'1' (got " +
                std::to_string(text.size()) + ")";
        return false;
    }
    std::string cells(TW_DET_REGION_CELLS, '0');
    std::stringstream list(text);
    std::string rect;
    while (std::getline(list, rect, ';')) {
        if (rect.empty()) continue;
        const size_t dash = rect.find('-');
        int c0 = 0, r0 = 0, c1 = 0, r1 = 0;
        bool ok = false;
        if (dash == std::string::npos) {
            ok = ParseCell(rect, c0, r0);
            c1 = c0;
            r1 = r0;
        } else {
            ok = ParseCell(rect.substr(0, dash), c0, r0) && ParseCell(rect.substr(dash + 1), c1, r1);
        }
        if (!ok) {
            error = "bad cell rectangle '" + rect + "' (expected COL,ROW-COL,ROW)";
            return false;
        }
        if (c0 > c1) std::swap(c0, c1);
        if (r0 > r1) std::swap(r0, r1);
        if (c1 >= kCols || r1 >= kRows) {
            error = "cell rectangle '" + rect + "' is outside the 40 x 30 grid";
            return false;
        }
        for (int r = r0; r <= r1; ++r)
            for (int c = c0; c <= c1; ++c) cells[r * kCols + c] = '1';
    }
    region = cells;
    return true;
}

}  // namespace tw::host
