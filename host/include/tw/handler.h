// Objects the host drives by function ID, and the handler records that bind an ID of a
// handler to a functor of the plug-in's tables (the functors themselves are declared in
// tw/handlerutils.h, which the plug-in and every host share).
#pragma once

#include <map>

// Root of every object driven by function ID. Its key function lives in the host, so the
// type information is the host's and the plug-in's dynamic_casts resolve against it.
class DPObjectBase {
public:
    virtual ~DPObjectBase();
};

class MemFuncBase;

// One record of a handler. Field order is part of the contract.
struct FunctorBase {
    MemFuncBase* pFunctor;
    DPObjectBase* pObject;
    const char* szHandlerName;
};

class TWHandlerBase {
public:
    TWHandlerBase();
    virtual ~TWHandlerBase();
    // Registers the handler's records with Register(); called once, before the first bind.
    virtual void RegisterTable() = 0;

    // Registers one record of the handler under a function ID.
    void Register(FunctorBase& record, int id);
    // Binds every registered record: functor = table[id] (null when absent), object, name.
    void SetHandlerBase(DPObjectBase* obj, std::map<int, MemFuncBase*>* table, const char* name);

    DPObjectBase* GetObject() const { return m_pObject; }
    // The record registered under an ID, or null.
    FunctorBase* GetRecord(int id);

protected:
    DPObjectBase* m_pObject;

private:
    std::map<int, FunctorBase*> m_Records;
    bool m_blTableRegistered;
};

// The host's own detector kinds (detector types 0, 1 and 3 to 8).
std::map<int, MemFuncBase*>* GetDetectorFuncTable();
void ReleaseDetDPObj(DPObjectBase*& obj);
