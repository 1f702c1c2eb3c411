// In-process stores of the recorder's configuration: cameras and detection settings.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "tw/camera.h"

namespace tw::host {

class CameraStore {
public:
    static CameraStore& Instance();
    void Put(const Camera& camera);
    void Remove(int camId);
    std::optional<Camera> Get(int camId);
    void Clear();

private:
    std::mutex m_Mutex;
    std::map<int, Camera> m_Cameras;
};

// A camera record with the defaults of the reference host.
Camera MakeCamera(int camId, int videoCodec);

struct DetSettingValues {
    int sensitivity = 80;
    int threshold = 10;
    int shortLiveSec = 0;
    std::string region = std::string(TW_DET_REGION_CELLS, '1');  // every cell watched
};

// Detection set 1 of each camera. Values are stored as given: range checks are the
// detector's business.
class DetSettingStore {
public:
    static DetSettingStore& Instance();
    void Put(int camId, const DetSettingValues& values);
    void Remove(int camId);
    std::optional<DetSettingValues> Get(int camId);
    void Clear();

private:
    std::mutex m_Mutex;
    std::map<int, DetSettingValues> m_Values;
};

// Region strings: the raw 1200-character form, or a friendlier list of cell rectangles
// "c0,r0-c1,r1;c0,r0-c1,r1" (inclusive, columns 0..39, rows 0..29), "all" or "none".
// Returns false and sets error when text is neither.
bool ParseRegion(const std::string& text, std::string& region, std::string& error);

}  // namespace tw::host
