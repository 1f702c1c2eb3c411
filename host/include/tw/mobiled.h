// Client of the host's mobile daemon, which relays the streams of mobile devices that act
// as cameras.
#pragma once

#include <string>

namespace Json {
class Value;
}

class MobiledApi {
public:
    // Asks the daemon to stream the camera's streamKind (e.g. "event") into the local socket
    // "/tmp/<socketName>.sock". Returns 0 when the request was delivered and answered; the
    // answer holds "success" (bool) and, on refusal, "errorMsg" (string).
    static int StartStream(int cameraId, std::string streamKind, std::string socketName, Json::Value* answer);
    // Asks the daemon to stop that stream; 0 when delivered and answered.
    static int StopStream(int cameraId, std::string streamKind, Json::Value* answer);
};
