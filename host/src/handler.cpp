// Handler records and the host's own detector kinds.
#include <atomic>
#include <mutex>

#include <string>

#include "interface/handlerutils.h"
#include "tw/handler.h"
#include "twhost/hostdetector.h"

DPObjectBase::~DPObjectBase() {}

TWHandlerBase::TWHandlerBase() : m_pObject(nullptr), m_blTableRegistered(false) {}

TWHandlerBase::~TWHandlerBase() {}

void TWHandlerBase::Register(FunctorBase& record, int id) { m_Records[id] = &record; }

void TWHandlerBase::SetHandlerBase(DPObjectBase* obj, std::map<int, MemFuncBase*>* table, const char* name) {
    // RegisterTable is virtual, so it cannot run from our constructor: the first bind does it.
    if (!m_blTableRegistered) {
        m_blTableRegistered = true;
        RegisterTable();
    }
    m_pObject = obj;
    for (auto& entry : m_Records) {
        FunctorBase* record = entry.second;
        MemFuncBase* functor = nullptr;
        if (table) {
            auto it = table->find(entry.first);
            if (it != table->end()) functor = it->second;
        }
        record->pFunctor = functor;
        record->pObject = obj;
        record->szHandlerName = name;
    }
}

FunctorBase* TWHandlerBase::GetRecord(int id) {
    auto it = m_Records.find(id);
    return it == m_Records.end() ? nullptr : it->second;
}

namespace {

// The host's own detector kind behind detector types 0, 1 and 3 to 8: a detector driven
// by an external trigger (a digital input, a recorder rule). ID 5 triggers it and ID 6 reads
// how often it was triggered.
class ExternalTriggerDetector : public DPObjectBase {
public:
    int Start() {
        std::lock_guard lock(m_Mutex);
        if (m_blActivated) return -1;
        m_blActivated = true;
        return 0;
    }
    int Stop() {
        std::lock_guard lock(m_Mutex);
        if (!m_blActivated) return -1;
        m_blActivated = false;
        return 0;
    }
    bool IsActivated() {
        std::lock_guard lock(m_Mutex);
        return m_blActivated;
    }
    bool IsShareEnabled() { return true; }
    void SetDetParam(int, const std::map<int, std::string>&, int) {}
    int Trigger() {
        std::lock_guard lock(m_Mutex);
        if (!m_blActivated) return -1;
        ++m_TriggerCount;
        return 0;
    }
    int GetTriggerCount() {
        std::lock_guard lock(m_Mutex);
        return m_TriggerCount;
    }

private:
    std::mutex m_Mutex;
    bool m_blActivated = false;
    int m_TriggerCount = 0;
};

}  // namespace

std::map<int, MemFuncBase*>* GetDetectorFuncTable() {
    static MemFunc<int, ExternalTriggerDetector> s_Start(&ExternalTriggerDetector::Start);
    static MemFunc<int, ExternalTriggerDetector> s_Stop(&ExternalTriggerDetector::Stop);
    static MemFunc<bool, ExternalTriggerDetector> s_IsActivated(&ExternalTriggerDetector::IsActivated);
    static MemFunc<bool, ExternalTriggerDetector> s_IsShareEnabled(&ExternalTriggerDetector::IsShareEnabled);
    static MemFunc<void, ExternalTriggerDetector, int, const std::map<int, std::string>&, int> s_SetDetParam(
        &ExternalTriggerDetector::SetDetParam);
    static MemFunc<int, ExternalTriggerDetector> s_Trigger(&ExternalTriggerDetector::Trigger);
    static MemFunc<int, ExternalTriggerDetector> s_GetTriggerCount(&ExternalTriggerDetector::GetTriggerCount);
    static std::map<int, MemFuncBase*> s_Table = {
        {0, &s_Start}, {1, &s_Stop},    {2, &s_IsActivated},    {3, &s_IsShareEnabled},
        {4, &s_SetDetParam}, {5, &s_Trigger}, {6, &s_GetTriggerCount},
    };
    return &s_Table;
}

DPObjectBase* CreateHostDetector() { return new ExternalTriggerDetector(); }

namespace {
std::atomic<int> g_HostReleaseCount{0};
}  // namespace

int tw::host::HostDetectorReleaseCount() { return g_HostReleaseCount.load(); }

void ReleaseDetDPObj(DPObjectBase*& obj) {
    if (obj == nullptr) return;
    ++g_HostReleaseCount;
    delete obj;
    obj = nullptr;
}
