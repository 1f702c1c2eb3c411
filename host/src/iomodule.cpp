// I/O modules: the backend registry, the request journal, the I/O-module daemon's commands
// and the audio pattern store.
#include "twhost/iomodule.h"

#include <deque>
#include <map>

#include "iojournal.h"
#include "twhost/clock.h"

namespace tw::host {

namespace {

std::mutex g_BackendMutex;
std::map<int, std::shared_ptr<IOModuleBackend>> g_Backends;

std::mutex g_JournalMutex;
std::deque<IORequest> g_Journal;
std::function<void(const IORequest&)> g_JournalListener;

struct PatternEntry {
    std::string filePath;
    int lengthSec;
};
std::mutex g_PatternMutex;
std::map<int, PatternEntry> g_Patterns;

// The daemon's side of one command. 0, or one of the kIOModuled... codes with error set.
int RunDaemonCommand(int moduleId, IOMODULED_CMD_TYPE type, const Json::Value& request,
                     std::string& error) {
    if (type != IOMODULED_CMD_FILE_AUDIO_OUT_START) {
        error = "unknown I/O-module daemon command " + std::to_string(static_cast<int>(type));
        return kIOModuledErrUnknownCommand;
    }
    if (!request.isObject()) {
        error = "the request of command " + std::to_string(static_cast<int>(type)) + " is not a JSON object";
        return kIOModuledErrBadRequest;
    }
    if (!request.isMember("filePath")) {
        error = "missing \"filePath\"";
        return kIOModuledErrBadRequest;
    }
    if (!request["filePath"].isString()) {
        error = "\"filePath\" is not a string";
        return kIOModuledErrBadRequest;
    }
    const std::string filePath = request["filePath"].asString();
    if (filePath.empty()) {
        error = "\"filePath\" is empty";
        return kIOModuledErrBadRequest;
    }
    bool isManual = false;
    if (request.isMember("isManual")) {
        if (!request["isManual"].isBool()) {
            error = "\"isManual\" is not a boolean";
            return kIOModuledErrBadRequest;
        }
        isManual = request["isManual"].asBool();
    }
    const std::shared_ptr<IOModuleBackend> backend = GetIOModuleBackend(moduleId);
    if (!backend) {
        error = "no I/O module " + std::to_string(moduleId);
        return kIOModuledErrUnknownModule;
    }
    std::string backendError;
    if (!backend->StartFileAudioOut(filePath, isManual, backendError)) {
        error = "I/O module " + std::to_string(moduleId) + ": " + backendError;
        return kIOModuledErrRefused;
    }
    return 0;
}

}  // namespace

bool IOModuleBackend::GetDigitalOutput(int idx, bool& /*state*/, std::string& error) {
    error = Describe() + ": digital output " + std::to_string(idx) + " cannot be read back";
    return false;
}

bool IOModuleBackend::CheckReachable(std::string& /*error*/) { return true; }

void SetIOModuleBackend(int moduleId, std::shared_ptr<IOModuleBackend> backend) {
    std::lock_guard<std::mutex> lock(g_BackendMutex);
    if (backend) {
        g_Backends[moduleId] = std::move(backend);
    } else {
        g_Backends.erase(moduleId);
    }
}

std::shared_ptr<IOModuleBackend> GetIOModuleBackend(int moduleId) {
    std::lock_guard<std::mutex> lock(g_BackendMutex);
    const auto it = g_Backends.find(moduleId);
    return it == g_Backends.end() ? nullptr : it->second;
}

void ClearIOModuleBackends() {
    // The backends are released outside the lock: a Modbus module closes its connection.
    std::map<int, std::shared_ptr<IOModuleBackend>> released;
    std::lock_guard<std::mutex> lock(g_BackendMutex);
    released.swap(g_Backends);
}

void RecordIORequest(IORequest request) {
    std::function<void(const IORequest&)> listener;
    {
        std::lock_guard<std::mutex> lock(g_JournalMutex);
        g_Journal.push_back(request);
        while (g_Journal.size() > kIORequestJournalMax) g_Journal.pop_front();
        listener = g_JournalListener;
    }
    // Outside the lock, so a listener may take the journal or make requests itself.
    if (listener) listener(request);
}

std::vector<IORequest> TakeIORequests() {
    std::lock_guard<std::mutex> lock(g_JournalMutex);
    std::vector<IORequest> requests(std::make_move_iterator(g_Journal.begin()),
                                    std::make_move_iterator(g_Journal.end()));
    g_Journal.clear();
    return requests;
}

void SetIORequestListener(std::function<void(const IORequest&)> listener) {
    std::lock_guard<std::mutex> lock(g_JournalMutex);
    g_JournalListener = std::move(listener);
}

std::string CompactJson(const Json::Value& value) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, value);
}

bool SetAudioPattern(int id, const std::string& filePath, int lengthSec, std::string* error) {
    if (filePath.empty()) {
        if (error) *error = "audio pattern " + std::to_string(id) + " has an empty file path";
        return false;
    }
    if (lengthSec < 0) {
        if (error) {
            *error = "audio pattern " + std::to_string(id) + " has a negative length " + std::to_string(lengthSec);
        }
        return false;
    }
    std::lock_guard<std::mutex> lock(g_PatternMutex);
    g_Patterns[id] = PatternEntry{filePath, lengthSec};
    return true;
}

void RemoveAudioPattern(int id) {
    std::lock_guard<std::mutex> lock(g_PatternMutex);
    g_Patterns.erase(id);
}

void ClearAudioPatterns() {
    std::lock_guard<std::mutex> lock(g_PatternMutex);
    g_Patterns.clear();
}

}  // namespace tw::host

int IOModuledApi::SendCmd(int moduleId, IOMODULED_CMD_TYPE type, const Json::Value& request,
                          Json::Value* response) {
    using namespace tw::host;
    // The request is journalled as it came in, before the answer may overwrite it.
    IORequest entry{GetClock().NowUs(), "iomoduled/" + std::to_string(static_cast<int>(type)), moduleId,
                    CompactJson(request), 0, std::string()};
    std::string error;
    const int result = RunDaemonCommand(moduleId, type, request, error);
    if (response) {
        *response = Json::Value(Json::objectValue);
        (*response)["success"] = result == 0;
        if (result != 0) (*response)["errorMsg"] = error;
    }
    entry.result = result;
    if (result != 0) entry.error = error;
    RecordIORequest(std::move(entry));
    return result;
}

AudioPattern::AudioPattern() : m_Id(-1), m_Length(0) {}

AudioPattern::~AudioPattern() = default;

int AudioPattern::Load(int id) {
    {
        std::lock_guard<std::mutex> lock(tw::host::g_PatternMutex);
        const auto it = tw::host::g_Patterns.find(id);
        if (it != tw::host::g_Patterns.end()) {
            m_Id = id;
            m_Length = it->second.lengthSec;
            m_strFilePath = it->second.filePath;
            return 0;
        }
    }
    // A failed load leaves no earlier pattern behind for the caller to play by mistake.
    m_Id = -1;
    m_Length = 0;
    m_strFilePath.clear();
    return -1;
}

int AudioPattern::GetLength() const { return m_Length; }

std::string AudioPattern::GetFilePath() const { return m_strFilePath; }
