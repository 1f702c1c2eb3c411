// Camera records, their detection settings and their event buffers.
#pragma once

enum CAM_PROFILE_TYPE : int {
    CAM_PROFILE_HIGH = 0,
    CAM_PROFILE_MEDIUM = 1,
    CAM_PROFILE_LOW = 2,
    CAM_PROFILE_COUNT = 3,
};

// Video codec of a camera's stream. 1 is JPEG (a stream of independent pictures);
// every other known value is decoded through the FFmpeg wrappers.
enum VIDEO_CODEC_TYPE : int {
    VIDEO_CODEC_UNKNOWN = 0,
    VIDEO_CODEC_JPEG = 1,
    VIDEO_CODEC_MPEG4 = 2,
    VIDEO_CODEC_H264 = 3,
    VIDEO_CODEC_HEVC = 4,
};

constexpr int TW_CAM_NAME_LEN = 64;

// A camera as the recorder stores it. The id is the first field by contract.
class Camera {
public:
    int id;
    char szName[TW_CAM_NAME_LEN];
    int videoCodec;                        // VIDEO_CODEC_TYPE
    CAM_PROFILE_TYPE liveProfile;          // the profile shown live
    int uiStreamNo[CAM_PROFILE_COUNT];     // stream number of each profile

    Camera();
    // Fills the record from the host's camera store; 0 on success.
    int Load(int camId, int reserved1, int reserved2);

    CAM_PROFILE_TYPE GetLiveProfile();
    int GetUiStreamNo(CAM_PROFILE_TYPE profile) const;
};

constexpr int TW_DET_REGION_CELLS = 1200;   // 40 columns x 30 rows

// Detection settings of a camera, read from the host's settings store. The first argument
// of every getter selects the detection set; set 1 is the image-difference detector.
class CamDetSetting {
public:
    CamDetSetting();
    ~CamDetSetting();
    // 0 when the camera has stored settings; otherwise the getters yield the defaults.
    int Load(Camera& camera);
    int GetSensitivity(int set, int& value) const;
    int GetThreshold(int set, int& value) const;
    int GetShortLiveSecond(int set, int& value) const;
    // Copies at most size - 1 characters of the region and terminates the text.
    int GetRegion(int set, char* region, unsigned int size) const;

private:
    int m_Sensitivity;
    int m_Threshold;
    int m_ShortLiveSec;
    char m_szRegion[TW_DET_REGION_CELLS + 1];
};

// The motion state of one camera, as the recorder's event logic sees it.
class EventBuf {
public:
    explicit EventBuf(int camId = 0);
    ~EventBuf();
    EventBuf(const EventBuf&) = delete;
    EventBuf& operator=(const EventBuf&) = delete;

    void SetStatus(bool motion, int value);

    struct Impl;
    Impl* GetImpl() const { return m_pImpl; }

private:
    Impl* m_pImpl;
};

// A frame fetcher of the recorder; detectors are handed one but do not use it.
class FetcherBase {
public:
    virtual ~FetcherBase();
};
