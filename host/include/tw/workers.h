// What a host hands to the plug-in's worker objects and gets back from them: the detector
// kinds of the detector handler and the action requests of the I/O-module action executor.
// A host needs these to drive the workers; their classes stay the plug-in's own.
#pragma once

// 2 is this module's image-difference detector, 9 its live-cam detector; 0, 1 and 3 to 8
// are the host's own detector kinds; anything above 9 is unknown (and may be stored).
enum DetectorType : int {
    DET_TYPE_HOST_0 = 0,
    DET_TYPE_HOST_1 = 1,
    DET_TYPE_IMG_DIFF = 2,
    DET_TYPE_HOST_LAST = 8,
    DET_TYPE_LIVE_CAM = 9,
};

// Action type of the audio-out action: the only key of the audio-side maps.
constexpr int IOACT_TYPE_AUDIO_OUT = 9;

// Bits of the action-flag word passed to DoAction.
enum : int {
    IOACT_FLAG_AUDIO_OUT = 0x200,
    IOACT_FLAG_DO_TRIGGER = 0x400,     // digital output, trigger state true
    IOACT_FLAG_DO_UNTRIGGER = 0x4000,  // digital output, trigger state false
};

// One action request: for the audio action (key 9) or for one digital-output port.
struct IOActExecCond {
    bool blStop;          // stop the running action (audio) / return the output to normal
    int audioPatternId;   // audio: the pattern to play
    int times;            // audio: number of plays when holdMode is 0
    long long period;     // audio: gap between plays; output: hold time, -2 until stopped
    int holdMode;         // audio: 0 counted plays, else until stopped;
                          // output: 0 timed, 1 held and re-asserted, else held
};
