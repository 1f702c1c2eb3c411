// The recorder's services for network I/O modules: its web API (through which digital
// outputs are switched), the I/O-module daemon (which plays audio files on a module) and
// the audio pattern store.
#pragma once

#include <string>

namespace Json {
class Value;
}

namespace ORVA {

class APIRunner {
public:
    // Runs one method of a web API in this process as the given user and fills response.
    // The response always carries "success" (bool); on failure also "error" {"code",
    // "message"}. Returns 0 when the method ran and succeeded, -1 otherwise (unknown API,
    // version or method, bad request, or a failure of the method).
    static int Exec(Json::Value& response, const char* api, int version, const char* method,
                    const Json::Value& request, const char* user);
};

}  // namespace ORVA

// Commands of the I/O-module daemon.
enum IOMODULED_CMD_TYPE : int {
    IOMODULED_CMD_NONE = 0,
    // Start audio out from a file: {"filePath": string, "isManual": bool}.
    IOMODULED_CMD_FILE_AUDIO_OUT_START = 6,
};

class IOModuledApi {
public:
    // Delivers a command for a module to the daemon. 0 when the daemon carried it out;
    // non-zero when it could not be delivered or was refused. response may be null.
    static int SendCmd(int moduleId, IOMODULED_CMD_TYPE type, const Json::Value& request,
                       Json::Value* response);
};

// An audio pattern of the recorder: a sound file chosen by id, with its length in seconds
// (the unit of TimeCount).
class AudioPattern {
public:
    AudioPattern();
    ~AudioPattern();
    // Loads the pattern from the host's pattern store; 0 on success.
    int Load(int id);
    int GetLength() const;
    std::string GetFilePath() const;

private:
    int m_Id;
    int m_Length;
    std::string m_strFilePath;
};
