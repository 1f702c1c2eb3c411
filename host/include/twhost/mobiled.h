// The host's side of the mobile daemon: how MobiledApi reaches it, and the wire protocol
// that the daemon ("twhost mobiled", or a test) speaks on its control socket.
//
// Control protocol: one request per connection on a UNIX stream socket. The client writes
// one JSON object and a newline, the daemon answers with one JSON object and a newline:
//   {"cmd":"startStream","cameraId":12,"stream":"event","socketName":"tw_livecam_detector_12"}
//   {"cmd":"stopStream","cameraId":12,"stream":"event"}
// answered by {"success":true} or {"success":false,"errorMsg":"..."}.
#pragma once

#include <functional>
#include <string>

#include <json/json.h>

namespace tw::host {

constexpr const char* kDefaultMobiledSocket = "/tmp/tw_mobiled.sock";

// Where MobiledApi sends its requests; default kDefaultMobiledSocket.
void SetMobiledSocketPath(const std::string& path);
std::string GetMobiledSocketPath();

// An in-process daemon: when set, MobiledApi hands every request to it instead of the
// socket. It fills the answer and returns 0, or non-zero for a delivery failure.
using MobiledHandler = std::function<int(const Json::Value& request, Json::Value& answer)>;
void SetMobiledHandler(MobiledHandler handler);
// A daemon that agrees to everything, so any process can connect to a detector's socket.
MobiledHandler MobiledAnswersSuccess();

// Sends one request over a control socket and reads the answer. 0 on success; otherwise
// non-zero and error says why (no daemon, refused, time-out, answer not JSON).
int SendMobiledRequest(const std::string& socketPath, const Json::Value& request, Json::Value& answer,
                       std::string& error, int timeoutMs = 5000);

// The socket path a daemon connects to for a socket name: "/tmp/<name>.sock".
std::string MobiledStreamSocketPath(const std::string& socketName);

}  // namespace tw::host
