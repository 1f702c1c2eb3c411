// An emulator of the host's mobile daemon: it serves the control socket that MobiledApi
// talks to, and for every started "event" stream it connects to the detector's socket and
// plays a script of events into it, one frame per event. Real daemons do not write one
// frame per write at tidy moments, so the emulator can also coalesce frames, split them
// across writes, refuse starts or agree and never connect.
//
// Script text, one event per line:
//   DELAY PAYLOAD...           e.g. "0.5 IsTrig:1 Level:57": a "motion" frame
//   DELAY type=TYPE PAYLOAD... a frame of another Content-Type (e.g. "event")
//   DELAY raw "..."            arbitrary bytes, with C escapes (\r \n \t \0 \\ \" \xHH \ooo)
//   # comment                  (blank lines are skipped too)
// DELAY is the number of seconds to wait after the previous event (the first one: after
// connecting). When the script has been played the daemon ends the stream by closing the
// connection, unless it is told to hold it open until stopStream.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>

#include "twhost/mobiled.h"

namespace tw::host {

struct MobiledScriptEvent {
    double delaySec = 0.0;   // after the previous event
    bool raw = false;        // bytes written as they are, no frame around them
    std::string type;        // Content-Type of a frame ("motion" unless the line says)
    std::string payload;     // frame payload, or the raw bytes
    int line = 0;            // where it came from, for messages

    // Exactly what goes onto the socket for this event.
    std::string Bytes() const;
};

struct MobiledScript {
    std::vector<MobiledScriptEvent> events;
};

// One event frame: "Content-Type: TYPE\r\nContent-Length: N\r\n\r\nPAYLOAD".
std::string MobiledEventFrame(const std::string& type, const std::string& payload);

// Parses script text; name says where it came from in messages ("NAME:LINE: why").
bool ParseMobiledScript(std::istream& in, const std::string& name, MobiledScript& script, std::string& error);
// Reads a script file, or standard input for "-".
bool LoadMobiledScript(const std::string& path, MobiledScript& script, std::string& error);

struct MobileDaemonOptions {
    std::string m_strSocketPath = kDefaultMobiledSocket;   // control socket to serve
    MobiledScript m_Script;
    int m_Coalesce = 1;          // frames per write; 1 writes each frame on its own
    bool m_blSplit = false;      // write every frame in pieces: cut in its header and its payload
    int m_PauseMs = 100;         // pause between the pieces of a split write
    bool m_blRefuse = false;     // answer every start with success false and m_strRefuseMsg
    std::string m_strRefuseMsg = "busy";
    bool m_blNoConnect = false;  // agree to starts but never connect
    bool m_blRepeat = false;     // play the script for every start, not only the first
    bool m_blHold = false;       // keep the connection open after the script, until stopped
};

// What the daemon did, for its listener.
struct MobiledActivity {
    enum class Kind {
        Request,      // a control request and its answer
        Connected,    // connected to a detector's socket
        EventSent,    // an event's bytes were written (all of them)
        StreamEnded,  // the event connection is closed; reason says why
        Failure,      // a stream could not be served (e.g. nobody listens at the socket)
    };
    Kind kind = Kind::Request;
    double t = 0.0;              // seconds since the daemon started
    int cameraId = -1;
    // Request
    std::string cmd;
    std::string stream;
    std::string socketName;
    bool success = false;
    std::string errorMsg;
    // EventSent
    int index = 0;               // 1-based position in the script
    int line = 0;                // script line
    bool raw = false;
    std::string type;
    std::string payload;
    size_t bytes = 0;            // of this event
    int writes = 0;              // writes that carried the event's group
    // Connected, StreamEnded, Failure
    std::string path;
    std::string reason;
};

using MobiledListener = std::function<void(const MobiledActivity&)>;

class MobileDaemon {
public:
    explicit MobileDaemon(MobileDaemonOptions options);
    // Stops serving and closes every stream.
    ~MobileDaemon();
    MobileDaemon(const MobileDaemon&) = delete;
    MobileDaemon& operator=(const MobileDaemon&) = delete;

    // Called on the daemon's threads, possibly at once from several; it must not call back
    // into the daemon. Set it before Start.
    void SetListener(MobiledListener listener);

    // Binds the control socket and serves it on a thread of its own. A stale socket file
    // (nobody answering behind it) is replaced; a live daemon or a file that is not a socket
    // is left alone and reported.
    bool Start(std::string& error);
    // Stops serving, removes the control socket file, closes every event stream and joins
    // every thread. Safe to call more than once.
    void Stop();

    // Answers one request exactly as on the socket; usable as the in-process MobiledHandler.
    void HandleRequest(const Json::Value& request, Json::Value& answer);

    const std::string& GetSocketPath() const { return m_Options.m_strSocketPath; }

private:
    struct Session;

    void ServeLoop();
    void ServeConnection(int fd);
    void StartSession(int cameraId, const std::string& socketName, Json::Value& answer);
    void StopSession(const std::shared_ptr<Session>& session, const std::string& reason);
    void RunSession(const std::shared_ptr<Session>& session);
    bool PlayScript(Session& session, std::string& endReason);
    bool WriteGroup(Session& session, const std::string& bytes, const std::vector<size_t>& cuts, int& writes,
                    std::string& endReason);
    bool WaitUntil(Session& session, std::chrono::steady_clock::time_point when, std::string& endReason);
    void Report(MobiledActivity activity);
    double Seconds() const;

    MobileDaemonOptions m_Options;
    MobiledListener m_Listener;
    std::chrono::steady_clock::time_point m_Epoch;

    int m_ListenFd = -1;
    int m_WakeFds[2] = {-1, -1};
    bool m_blOwnsSocketFile = false;
    std::thread m_ServeThread;

    // Orders requests: a start that replaces a stream finishes before the next request.
    std::mutex m_RequestMutex;
    std::mutex m_SessionsMutex;
    std::map<int, std::shared_ptr<Session>> m_Sessions;   // by camera id
    bool m_blScriptPlayed = false;
};

}  // namespace tw::host
