// The plug-in as a recorder's daemon sees it: a shared library opened with dlopen, whose
// entry points are resolved by their (Itanium C++ ABI) names, and detector handlers driven
// through their records by function ID.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tw/handler.h"
#include "tw/handlerutils.h"
#include "tw/workers.h"

class Camera;
class EventBuf;
class StreamFifo;
class FetcherBase;
class DeviceAPIHandler;
class IOModuleStatus;

namespace tw::host {

class PluginModule;

// A DetectorHandler made and driven through the plug-in's resolved symbols.
class DetectorHandlerProxy {
public:
    ~DetectorHandlerProxy();
    DetectorHandlerProxy(const DetectorHandlerProxy&) = delete;
    DetectorHandlerProxy& operator=(const DetectorHandlerProxy&) = delete;

    void SetDetector(DPObjectBase* obj, int type);
    int GetDetType();
    void Release();
    // The handler as the host's own base type (the plug-in's class is only known to it).
    TWHandlerBase* Get() { return m_pHandler; }
    // The record registered under a function ID (null before the first SetDetector).
    FunctorBase* Record(int id);

    // Function IDs 0 to 4 of a detector, through the records.
    int Start();
    int Stop();
    bool IsActivated();
    bool IsShareEnabled();
    void SetDetParam(const std::map<int, std::string>& params);

private:
    friend class PluginModule;
    DetectorHandlerProxy(const PluginModule& module, void* handler);
    const PluginModule& m_Module;
    // The object lives in memory of ours but its type belongs to the plug-in: the host only
    // uses it through its TWHandlerBase base (at offset 0, single inheritance) and through
    // the plug-in's resolved member functions, so it never needs the plug-in's class
    // information (which it does not link).
    void* m_pMemory;
    TWHandlerBase* m_pHandler;
};

// An IOActExecutor of the plug-in, made and driven through its resolved member functions.
// Destroying the proxy destroys the executor (which terminates a running one).
class IOActExecutorProxy {
public:
    ~IOActExecutorProxy();
    IOActExecutorProxy(const IOActExecutorProxy&) = delete;
    IOActExecutorProxy& operator=(const IOActExecutorProxy&) = delete;

    int Init(int moduleId, int doCount, DeviceAPIHandler* deviceApi, IOModuleStatus* ioStatus);
    int GetStatus(std::map<int, int>& actSts, std::map<int, int>& doSts);
    int DoAction(int actFlags, const std::map<int, IOActExecCond>& audioConds,
                 const std::map<int, IOActExecCond>& doConds, bool extraFlag);
    int Terminate();

private:
    friend class PluginModule;
    IOActExecutorProxy(const PluginModule& module, void* executor);
    const PluginModule& m_Module;
    void* m_pExecutor;
};

// An AudioOut of the plug-in, made and driven through its resolved member functions.
// Destroying the proxy destroys the output (which stops a running one).
class AudioOutProxy {
public:
    ~AudioOutProxy();
    AudioOutProxy(const AudioOutProxy&) = delete;
    AudioOutProxy& operator=(const AudioOutProxy&) = delete;

    int Init();
    int Start(const std::string& filePath, bool manual);
    int Start(bool manual);
    int Stop();
    bool IsManualOutputing();

private:
    friend class PluginModule;
    AudioOutProxy(const PluginModule& module, void* out);
    const PluginModule& m_Module;
    void* m_pOut;
};

class PluginModule {
public:
    // Opens the library with RTLD_NOW and resolves every entry point; null and an error
    // naming the path and the missing symbol on failure.
    static std::unique_ptr<PluginModule> Load(const std::string& path, std::string& error);
    // Where a host finds the plug-in when it is not told: $TWHOST_PLUGIN when set, else the
    // first of SearchPath() that exists, else the install's plug-in folder (so that the
    // error names where it should be).
    static std::string DefaultPath();
    // The places looked at, in order: libtwdevplugin.so next to the running executable, in
    // ../lib from it (a build tree), and in the plug-in folder of the install that the host
    // library belongs to (LIBDIR/twhost/plugins beside libtwhost.so, then the folder of the
    // configured install prefix).
    static std::vector<std::string> SearchPath();
    // The plug-in folder of the configured install prefix, e.g.
    // "/usr/lib/x86_64-linux-gnu/twhost/plugins".
    static std::string InstalledPluginDir();
    // The search order in words, for a command's --help.
    static std::string SearchOrderHelp();
    ~PluginModule();

    DPObjectBase* TWMotionDetFactory(Camera* camera, EventBuf* eventBuf, StreamFifo* fifo,
                                     FetcherBase* fetcher) const;
    void ReleaseTWMotionDet(DPObjectBase*& obj) const;
    std::map<int, MemFuncBase*>* GetTWMdFuncTable() const;
    DPObjectBase* LiveCamDetectorFactory(Camera* camera, EventBuf* eventBuf) const;
    void ReleaseLiveCamDetector(DPObjectBase*& obj) const;
    std::map<int, MemFuncBase*>* GetLiveCamDetectorFuncTable() const;
    const char* ImgDiffDetHandlerName() const;
    const char* DetectorHandlerName() const;
    const char* LiveCamDetHandlerName() const;

    std::unique_ptr<DetectorHandlerProxy> NewDetectorHandler() const;
    std::unique_ptr<IOActExecutorProxy> NewIOActExecutor() const;
    std::unique_ptr<AudioOutProxy> NewAudioOut(int devId, int devType) const;

    // Any symbol of the plug-in by name, or null.
    void* Symbol(const char* name) const;
    const std::string& Path() const { return m_strPath; }

    struct EntryPoints;

private:
    friend class DetectorHandlerProxy;
    friend class IOActExecutorProxy;
    friend class AudioOutProxy;
    PluginModule() = default;
    void* m_pHandle = nullptr;
    std::string m_strPath;
    std::unique_ptr<EntryPoints> m_pEntries;
};

}  // namespace tw::host
