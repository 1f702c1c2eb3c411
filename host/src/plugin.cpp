#include "twhost/plugin.h"

#include <dlfcn.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <new>

// The worker classes are the plug-in's; the host library is built with the plug-in and
// takes only their sizes from them, to make room for objects whose code is the module's.
// None of this reaches the installed headers.
#include "actionrule/ioactionExecutor.h"
#include "camera/audioout.h"
#include "interface/detectorhandler.h"

#ifndef TW_INSTALL_PLUGIN_DIR
#error "TW_INSTALL_PLUGIN_DIR must name the plug-in folder of the install"
#endif
#ifndef TW_PLUGIN_SUBDIR
#error "TW_PLUGIN_SUBDIR must name the plug-in folder relative to the library folder"
#endif

namespace tw::host {

struct PluginModule::EntryPoints {
    DPObjectBase* (*motionDetFactory)(Camera*, EventBuf*, StreamFifo*, FetcherBase*) = nullptr;
    void (*releaseMotionDet)(DPObjectBase*&) = nullptr;
    std::map<int, MemFuncBase*>* (*getMdFuncTable)() = nullptr;
    DPObjectBase* (*liveCamFactory)(Camera*, EventBuf*) = nullptr;
    void (*releaseLiveCam)(DPObjectBase*&) = nullptr;
    std::map<int, MemFuncBase*>* (*getLiveCamFuncTable)() = nullptr;
    const char** imgDiffName = nullptr;
    const char** detectorName = nullptr;
    const char** liveCamName = nullptr;
    // Member functions take the object as their first argument (Itanium C++ ABI).
    void (*handlerCtor)(void*) = nullptr;
    void (*handlerSetDetector)(void*, DPObjectBase*, DetectorType) = nullptr;
    DetectorType (*handlerGetDetType)(void*) = nullptr;
    void (*handlerRelease)(void*) = nullptr;
    void (*executorCtor)(void*) = nullptr;
    void (*executorDtor)(void*) = nullptr;
    int (*executorInit)(void*, int, int, DeviceAPIHandler*, IOModuleStatus*) = nullptr;
    int (*executorGetStatus)(void*, std::map<int, int>&, std::map<int, int>&) = nullptr;
    int (*executorDoAction)(void*, int, const std::map<int, IOActExecCond>&,
                            const std::map<int, IOActExecCond>&, bool) = nullptr;
    int (*executorTerminate)(void*) = nullptr;
    void (*audioOutCtor)(void*, int, int) = nullptr;
    void (*audioOutDtor)(void*) = nullptr;
    int (*audioOutInit)(void*) = nullptr;
    int (*audioOutStartFile)(void*, const std::string&, bool) = nullptr;
    int (*audioOutStartLive)(void*, bool) = nullptr;
    int (*audioOutStop)(void*) = nullptr;
    bool (*audioOutIsManual)(void*) = nullptr;
};

namespace {

// Names of the entry points as the C++ compiler emits them (Itanium ABI), which is how a
// daemon finds them in the module.
struct SymbolName {
    const char* mangled;
    const char* readable;
};
constexpr SymbolName kMotionDetFactory = {"_Z18TWMotionDetFactoryP6CameraP8EventBufP10StreamFifoP11FetcherBase",
                                          "TWMotionDetFactory"};
constexpr SymbolName kReleaseMotionDet = {"_Z18ReleaseTWMotionDetRP12DPObjectBase", "ReleaseTWMotionDet"};
constexpr SymbolName kGetMdFuncTable = {"_Z16GetTWMdFuncTablev", "GetTWMdFuncTable"};
constexpr SymbolName kLiveCamFactory = {"_Z22LiveCamDetectorFactoryP6CameraP8EventBuf", "LiveCamDetectorFactory"};
constexpr SymbolName kReleaseLiveCam = {"_Z22ReleaseLiveCamDetectorRP12DPObjectBase", "ReleaseLiveCamDetector"};
constexpr SymbolName kGetLiveCamFuncTable = {"_Z27GetLiveCamDetectorFuncTablev", "GetLiveCamDetectorFuncTable"};
constexpr SymbolName kImgDiffName = {"szImgDiffDetHandler", "szImgDiffDetHandler"};
constexpr SymbolName kDetectorName = {"szDetectorHandler", "szDetectorHandler"};
constexpr SymbolName kLiveCamName = {"szLiveCamDetHandler", "szLiveCamDetHandler"};
constexpr SymbolName kHandlerCtor = {"_ZN15DetectorHandlerC1Ev", "DetectorHandler::DetectorHandler()"};
constexpr SymbolName kHandlerSetDetector = {"_ZN15DetectorHandler11SetDetectorEP12DPObjectBase12DetectorType",
                                            "DetectorHandler::SetDetector"};
constexpr SymbolName kHandlerGetDetType = {"_ZN15DetectorHandler10GetDetTypeEv", "DetectorHandler::GetDetType"};
constexpr SymbolName kHandlerRelease = {"_ZN15DetectorHandler7ReleaseEv", "DetectorHandler::Release"};
constexpr SymbolName kExecutorCtor = {"_ZN13IOActExecutorC1Ev", "IOActExecutor::IOActExecutor()"};
constexpr SymbolName kExecutorDtor = {"_ZN13IOActExecutorD1Ev", "IOActExecutor::~IOActExecutor()"};
constexpr SymbolName kExecutorInit = {"_ZN13IOActExecutor4InitEiiP16DeviceAPIHandlerP14IOModuleStatus",
                                      "IOActExecutor::Init"};
constexpr SymbolName kExecutorGetStatus = {
    "_ZN13IOActExecutor9GetStatusERSt3mapIiiSt4lessIiESaISt4pairIKiiEEES8_", "IOActExecutor::GetStatus"};
constexpr SymbolName kExecutorDoAction = {
    "_ZN13IOActExecutor8DoActionEiRKSt3mapIi13IOActExecCondSt4lessIiESaISt4pairIKiS1_EEESA_b",
    "IOActExecutor::DoAction"};
constexpr SymbolName kExecutorTerminate = {"_ZN13IOActExecutor9TerminateEv", "IOActExecutor::Terminate"};
constexpr SymbolName kAudioOutCtor = {"_ZN8AudioOutC1Eii", "AudioOut::AudioOut(int, int)"};
constexpr SymbolName kAudioOutDtor = {"_ZN8AudioOutD1Ev", "AudioOut::~AudioOut()"};
constexpr SymbolName kAudioOutInit = {"_ZN8AudioOut4InitEv", "AudioOut::Init"};
constexpr SymbolName kAudioOutStartFile = {
    "_ZN8AudioOut5StartERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEb",
    "AudioOut::Start(const std::string&, bool)"};
constexpr SymbolName kAudioOutStartLive = {"_ZN8AudioOut5StartEb", "AudioOut::Start(bool)"};
constexpr SymbolName kAudioOutStop = {"_ZN8AudioOut4StopEv", "AudioOut::Stop"};
constexpr SymbolName kAudioOutIsManual = {"_ZN8AudioOut17IsManualOutputingEv", "AudioOut::IsManualOutputing"};

template <typename T>
bool Resolve(void* handle, const SymbolName& name, T& out, const std::string& path, std::string& error) {
    dlerror();
    void* sym = dlsym(handle, name.mangled);
    if (sym == nullptr) {
        error = "plug-in '" + path + "' has no entry point " + name.readable + " (" + name.mangled + ")";
        return false;
    }
    out = reinterpret_cast<T>(sym);
    return true;
}

}  // namespace

std::unique_ptr<PluginModule> PluginModule::Load(const std::string& path, std::string& error) {
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        const char* why = dlerror();
        error = "cannot load plug-in '" + path + "': " + (why ? why : "unknown error");
        return nullptr;
    }
    std::unique_ptr<PluginModule> module(new PluginModule());
    module->m_pHandle = handle;
    module->m_strPath = path;
    module->m_pEntries = std::make_unique<EntryPoints>();
    EntryPoints& e = *module->m_pEntries;
    const bool ok = Resolve(handle, kMotionDetFactory, e.motionDetFactory, path, error) &&
                    Resolve(handle, kReleaseMotionDet, e.releaseMotionDet, path, error) &&
                    Resolve(handle, kGetMdFuncTable, e.getMdFuncTable, path, error) &&
                    Resolve(handle, kLiveCamFactory, e.liveCamFactory, path, error) &&
                    Resolve(handle, kReleaseLiveCam, e.releaseLiveCam, path, error) &&
                    Resolve(handle, kGetLiveCamFuncTable, e.getLiveCamFuncTable, path, error) &&
                    Resolve(handle, kImgDiffName, e.imgDiffName, path, error) &&
                    Resolve(handle, kDetectorName, e.detectorName, path, error) &&
                    Resolve(handle, kLiveCamName, e.liveCamName, path, error) &&
                    Resolve(handle, kHandlerCtor, e.handlerCtor, path, error) &&
                    Resolve(handle, kHandlerSetDetector, e.handlerSetDetector, path, error) &&
                    Resolve(handle, kHandlerGetDetType, e.handlerGetDetType, path, error) &&
                    Resolve(handle, kHandlerRelease, e.handlerRelease, path, error) &&
                    Resolve(handle, kExecutorCtor, e.executorCtor, path, error) &&
                    Resolve(handle, kExecutorDtor, e.executorDtor, path, error) &&
                    Resolve(handle, kExecutorInit, e.executorInit, path, error) &&
                    Resolve(handle, kExecutorGetStatus, e.executorGetStatus, path, error) &&
                    Resolve(handle, kExecutorDoAction, e.executorDoAction, path, error) &&
                    Resolve(handle, kExecutorTerminate, e.executorTerminate, path, error) &&
                    Resolve(handle, kAudioOutCtor, e.audioOutCtor, path, error) &&
                    Resolve(handle, kAudioOutDtor, e.audioOutDtor, path, error) &&
                    Resolve(handle, kAudioOutInit, e.audioOutInit, path, error) &&
                    Resolve(handle, kAudioOutStartFile, e.audioOutStartFile, path, error) &&
                    Resolve(handle, kAudioOutStartLive, e.audioOutStartLive, path, error) &&
                    Resolve(handle, kAudioOutStop, e.audioOutStop, path, error) &&
                    Resolve(handle, kAudioOutIsManual, e.audioOutIsManual, path, error);
    if (!ok) return nullptr;  // the destructor closes the library
    return module;
}

namespace {

constexpr const char* kPluginFile = "libtwdevplugin.so";

bool IsFile(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::string DirOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash);
}

}  // namespace

std::string PluginModule::InstalledPluginDir() { return TW_INSTALL_PLUGIN_DIR; }

std::vector<std::string> PluginModule::SearchPath() {
    std::vector<std::string> paths;
    char exe[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
    if (n > 0) {
        exe[n] = '\0';
        const std::string dir = DirOf(exe);
        paths.push_back(dir + "/" + kPluginFile);
        paths.push_back(dir + "/../lib/" + kPluginFile);
    }
    // The install this library belongs to, wherever it was unpacked or relocated to: the
    // plug-in folder sits under the folder of libtwhost.so.
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&PluginModule::SearchPath), &info) != 0 && info.dli_fname &&
        std::string(info.dli_fname).find('/') != std::string::npos) {
        paths.push_back(DirOf(info.dli_fname) + "/" + TW_PLUGIN_SUBDIR + "/" + kPluginFile);
    }
    paths.push_back(InstalledPluginDir() + "/" + kPluginFile);
    return paths;
}

std::string PluginModule::SearchOrderHelp() {
    return std::string("The plug-in (") + kPluginFile +
           ") is the first of:\n"
           "  1. the path given with --plugin\n"
           "  2. the path in the environment variable TWHOST_PLUGIN\n"
           "  3. next to the twhost binary: BINDIR/" + kPluginFile + ", then BINDIR/../lib/" + kPluginFile +
           " (a build tree)\n"
           "  4. the plug-in folder of the install: LIBDIR/" TW_PLUGIN_SUBDIR "/ beside libtwhost.so,\n"
           "     then " + InstalledPluginDir() + "/\n";
}

std::string PluginModule::DefaultPath() {
    if (const char* env = getenv("TWHOST_PLUGIN"); env && *env) return env;
    for (const std::string& path : SearchPath()) {
        if (IsFile(path)) return path;
    }
    return InstalledPluginDir() + "/" + kPluginFile;
}

PluginModule::~PluginModule() {
    // Objects of the plug-in must be gone by now; the module stays mapped until exit so
    // that late destructors of its statics still find their code.
    (void)m_pHandle;
}

DPObjectBase* PluginModule::TWMotionDetFactory(Camera* camera, EventBuf* eventBuf, StreamFifo* fifo,
                                               FetcherBase* fetcher) const {
    return m_pEntries->motionDetFactory(camera, eventBuf, fifo, fetcher);
}

void PluginModule::ReleaseTWMotionDet(DPObjectBase*& obj) const { m_pEntries->releaseMotionDet(obj); }

std::map<int, MemFuncBase*>* PluginModule::GetTWMdFuncTable() const { return m_pEntries->getMdFuncTable(); }

DPObjectBase* PluginModule::LiveCamDetectorFactory(Camera* camera, EventBuf* eventBuf) const {
    return m_pEntries->liveCamFactory(camera, eventBuf);
}

void PluginModule::ReleaseLiveCamDetector(DPObjectBase*& obj) const { m_pEntries->releaseLiveCam(obj); }

std::map<int, MemFuncBase*>* PluginModule::GetLiveCamDetectorFuncTable() const {
    return m_pEntries->getLiveCamFuncTable();
}

const char* PluginModule::ImgDiffDetHandlerName() const { return *m_pEntries->imgDiffName; }
const char* PluginModule::DetectorHandlerName() const { return *m_pEntries->detectorName; }
const char* PluginModule::LiveCamDetHandlerName() const { return *m_pEntries->liveCamName; }

void* PluginModule::Symbol(const char* name) const { return dlsym(m_pHandle, name); }

std::unique_ptr<DetectorHandlerProxy> PluginModule::NewDetectorHandler() const {
    void* memory = ::operator new(sizeof(DetectorHandler));
    m_pEntries->handlerCtor(memory);
    return std::unique_ptr<DetectorHandlerProxy>(new DetectorHandlerProxy(*this, memory));
}

std::unique_ptr<IOActExecutorProxy> PluginModule::NewIOActExecutor() const {
    // The layout is the plug-in's header's; only its code is taken from the module.
    void* memory = ::operator new(sizeof(IOActExecutor));
    m_pEntries->executorCtor(memory);
    return std::unique_ptr<IOActExecutorProxy>(new IOActExecutorProxy(*this, memory));
}

std::unique_ptr<AudioOutProxy> PluginModule::NewAudioOut(int devId, int devType) const {
    void* memory = ::operator new(sizeof(AudioOut));
    m_pEntries->audioOutCtor(memory, devId, devType);
    return std::unique_ptr<AudioOutProxy>(new AudioOutProxy(*this, memory));
}

AudioOutProxy::AudioOutProxy(const PluginModule& module, void* out) : m_Module(module), m_pOut(out) {}

AudioOutProxy::~AudioOutProxy() {
    m_Module.m_pEntries->audioOutDtor(m_pOut);
    ::operator delete(m_pOut);
}

int AudioOutProxy::Init() { return m_Module.m_pEntries->audioOutInit(m_pOut); }
int AudioOutProxy::Start(const std::string& filePath, bool manual) {
    return m_Module.m_pEntries->audioOutStartFile(m_pOut, filePath, manual);
}
int AudioOutProxy::Start(bool manual) { return m_Module.m_pEntries->audioOutStartLive(m_pOut, manual); }
int AudioOutProxy::Stop() { return m_Module.m_pEntries->audioOutStop(m_pOut); }
bool AudioOutProxy::IsManualOutputing() { return m_Module.m_pEntries->audioOutIsManual(m_pOut); }

IOActExecutorProxy::IOActExecutorProxy(const PluginModule& module, void* executor)
    : m_Module(module), m_pExecutor(executor) {}

IOActExecutorProxy::~IOActExecutorProxy() {
    m_Module.m_pEntries->executorDtor(m_pExecutor);
    ::operator delete(m_pExecutor);
}

int IOActExecutorProxy::Init(int moduleId, int doCount, DeviceAPIHandler* deviceApi,
                             IOModuleStatus* ioStatus) {
    return m_Module.m_pEntries->executorInit(m_pExecutor, moduleId, doCount, deviceApi, ioStatus);
}

int IOActExecutorProxy::GetStatus(std::map<int, int>& actSts, std::map<int, int>& doSts) {
    return m_Module.m_pEntries->executorGetStatus(m_pExecutor, actSts, doSts);
}

int IOActExecutorProxy::DoAction(int actFlags, const std::map<int, IOActExecCond>& audioConds,
                                 const std::map<int, IOActExecCond>& doConds, bool extraFlag) {
    return m_Module.m_pEntries->executorDoAction(m_pExecutor, actFlags, audioConds, doConds, extraFlag);
}

int IOActExecutorProxy::Terminate() { return m_Module.m_pEntries->executorTerminate(m_pExecutor); }

DetectorHandlerProxy::DetectorHandlerProxy(const PluginModule& module, void* handler)
    : m_Module(module), m_pMemory(handler), m_pHandler(reinterpret_cast<TWHandlerBase*>(handler)) {}

DetectorHandlerProxy::~DetectorHandlerProxy() {
    // Virtual: the plug-in's deleting destructor runs and frees the memory. It does not
    // release the detector.
    delete m_pHandler;
}

void DetectorHandlerProxy::SetDetector(DPObjectBase* obj, int type) {
    m_Module.m_pEntries->handlerSetDetector(m_pMemory, obj, static_cast<DetectorType>(type));
}

int DetectorHandlerProxy::GetDetType() { return m_Module.m_pEntries->handlerGetDetType(m_pMemory); }

void DetectorHandlerProxy::Release() { m_Module.m_pEntries->handlerRelease(m_pMemory); }

FunctorBase* DetectorHandlerProxy::Record(int id) { return m_pHandler->GetRecord(id); }

namespace {
// A record that was never registered behaves like an unbound one.
const FunctorBase& RecordOrEmpty(FunctorBase* record) {
    static const FunctorBase kEmpty = {nullptr, nullptr, nullptr};
    return record ? *record : kEmpty;
}
}  // namespace

int DetectorHandlerProxy::Start() { return RunFunctor<int>(RecordOrEmpty(Record(0))); }
int DetectorHandlerProxy::Stop() { return RunFunctor<int>(RecordOrEmpty(Record(1))); }
bool DetectorHandlerProxy::IsActivated() { return RunFunctor<bool>(RecordOrEmpty(Record(2))); }
bool DetectorHandlerProxy::IsShareEnabled() { return RunFunctor<bool>(RecordOrEmpty(Record(3))); }
void DetectorHandlerProxy::SetDetParam(const std::map<int, std::string>& params) {
    RunFunctor<void, int, const std::map<int, std::string>&, int>(RecordOrEmpty(Record(4)), 0, params, 0);
}

}  // namespace tw::host
