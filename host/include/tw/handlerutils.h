// Functor templates through which a host calls an object by function ID, and the call side
// that runs a functor held by a handler record. Included by the host as well.
#pragma once

#include <map>
#include <string>

#include "tw/export.h"
#include "tw/handler.h"
#include "tw/log.h"

// Marks an unused argument position; every functor has seven of them.
struct TW_EXPORT NoneT {};

class TW_EXPORT MemFuncBase {
public:
    virtual ~MemFuncBase() {}
};

// The interface of functors of one signature: R (DPObjectBase*, A1 ... An), with the unused
// positions filled by NoneT. One specialisation per number of real arguments.
template <typename R, typename A1 = NoneT, typename A2 = NoneT, typename A3 = NoneT,
          typename A4 = NoneT, typename A5 = NoneT, typename A6 = NoneT, typename A7 = NoneT>
class TW_EXPORT MemFuncInterface : public MemFuncBase {
public:
    virtual R operator()(DPObjectBase* obj, A1, A2, A3, A4, A5, A6, A7) = 0;
};

template <typename R>
class TW_EXPORT MemFuncInterface<R, NoneT, NoneT, NoneT, NoneT, NoneT, NoneT, NoneT> : public MemFuncBase {
public:
    virtual R operator()(DPObjectBase* obj) = 0;
};

template <typename R, typename A1>
class TW_EXPORT MemFuncInterface<R, A1, NoneT, NoneT, NoneT, NoneT, NoneT, NoneT> : public MemFuncBase {
public:
    virtual R operator()(DPObjectBase* obj, A1) = 0;
};

template <typename R, typename A1, typename A2>
class TW_EXPORT MemFuncInterface<R, A1, A2, NoneT, NoneT, NoneT, NoneT, NoneT> : public MemFuncBase {
public:
    virtual R operator()(DPObjectBase* obj, A1, A2) = 0;
};

template <typename R, typename A1, typename A2, typename A3>
class TW_EXPORT MemFuncInterface<R, A1, A2, A3, NoneT, NoneT, NoneT, NoneT> : public MemFuncBase {
public:
    virtual R operator()(DPObjectBase* obj, A1, A2, A3) = 0;
};

template <typename R, typename A1, typename A2, typename A3, typename A4>
class TW_EXPORT MemFuncInterface<R, A1, A2, A3, A4, NoneT, NoneT, NoneT> : public MemFuncBase {
public:
    virtual R operator()(DPObjectBase* obj, A1, A2, A3, A4) = 0;
};

template <typename R, typename A1, typename A2, typename A3, typename A4, typename A5>
class TW_EXPORT MemFuncInterface<R, A1, A2, A3, A4, A5, NoneT, NoneT> : public MemFuncBase {
public:
    virtual R operator()(DPObjectBase* obj, A1, A2, A3, A4, A5) = 0;
};

template <typename R, typename A1, typename A2, typename A3, typename A4, typename A5, typename A6>
class TW_EXPORT MemFuncInterface<R, A1, A2, A3, A4, A5, A6, NoneT> : public MemFuncBase {
public:
    virtual R operator()(DPObjectBase* obj, A1, A2, A3, A4, A5, A6) = 0;
};

namespace tw_functor_detail {

constexpr const char* kSourceFile = "interface/handlerutils.h";

// The zero value of a functor's result type.
template <typename R>
inline R ZeroResult() {
    return R();
}
template <>
inline void ZeroResult<void>() {}

// Runs the member function on obj when obj really is a Class; otherwise reports the failed
// downcast, ungated (it is a programming error of the caller), and yields the zero value.
template <typename R, typename Class, typename... A>
inline R Invoke(R (Class::*func)(A...), DPObjectBase* obj, int line, A... args) {
    Class* target = obj ? dynamic_cast<Class*>(obj) : nullptr;
    if (target) return (target->*func)(args...);
    TWPrintf(LOG_TYPE_NORMAL, nullptr, nullptr, kSourceFile, line, "operator()",
             "Error: Failed to downcast DPObjectBase.\n");
    return ZeroResult<R>();
}

}  // namespace tw_functor_detail

// A functor bound to one member function of Class. Registered once in a class's table.
template <typename R, typename Class, typename A1 = NoneT, typename A2 = NoneT,
          typename A3 = NoneT, typename A4 = NoneT, typename A5 = NoneT, typename A6 = NoneT,
          typename A7 = NoneT>
class TW_EXPORT MemFunc : public MemFuncInterface<R, A1, A2, A3, A4, A5, A6, A7> {
public:
    typedef R (Class::*Func)(A1, A2, A3, A4, A5, A6, A7);
    explicit MemFunc(Func f) : m_Func(f) {}
    R operator()(DPObjectBase* obj, A1 a1, A2 a2, A3 a3, A4 a4, A5 a5, A6 a6, A7 a7) override {
        return tw_functor_detail::Invoke<R, Class, A1, A2, A3, A4, A5, A6, A7>(m_Func, obj, __LINE__, a1, a2, a3, a4, a5, a6, a7);
    }

private:
    Func m_Func;
};

template <typename R, typename Class>
class TW_EXPORT MemFunc<R, Class, NoneT, NoneT, NoneT, NoneT, NoneT, NoneT, NoneT>
    : public MemFuncInterface<R> {
public:
    typedef R (Class::*Func)();
    explicit MemFunc(Func f) : m_Func(f) {}
    R operator()(DPObjectBase* obj) override {
        return tw_functor_detail::Invoke<R, Class>(m_Func, obj, __LINE__);
    }

private:
    Func m_Func;
};

template <typename R, typename Class, typename A1>
class TW_EXPORT MemFunc<R, Class, A1, NoneT, NoneT, NoneT, NoneT, NoneT, NoneT>
    : public MemFuncInterface<R, A1> {
public:
    typedef R (Class::*Func)(A1);
    explicit MemFunc(Func f) : m_Func(f) {}
    R operator()(DPObjectBase* obj, A1 a1) override {
        return tw_functor_detail::Invoke<R, Class, A1>(m_Func, obj, __LINE__, a1);
    }

private:
    Func m_Func;
};

template <typename R, typename Class, typename A1, typename A2>
class TW_EXPORT MemFunc<R, Class, A1, A2, NoneT, NoneT, NoneT, NoneT, NoneT>
    : public MemFuncInterface<R, A1, A2> {
public:
    typedef R (Class::*Func)(A1, A2);
    explicit MemFunc(Func f) : m_Func(f) {}
    R operator()(DPObjectBase* obj, A1 a1, A2 a2) override {
        return tw_functor_detail::Invoke<R, Class, A1, A2>(m_Func, obj, __LINE__, a1, a2);
    }

private:
    Func m_Func;
};

template <typename R, typename Class, typename A1, typename A2, typename A3>
class TW_EXPORT MemFunc<R, Class, A1, A2, A3, NoneT, NoneT, NoneT, NoneT>
    : public MemFuncInterface<R, A1, A2, A3> {
public:
    typedef R (Class::*Func)(A1, A2, A3);
    explicit MemFunc(Func f) : m_Func(f) {}
    R operator()(DPObjectBase* obj, A1 a1, A2 a2, A3 a3) override {
        return tw_functor_detail::Invoke<R, Class, A1, A2, A3>(m_Func, obj, __LINE__, a1, a2, a3);
    }

private:
    Func m_Func;
};

// Signatures with four to six real arguments are not used by any table of this module;
// the primary template covers seven.

// The call side: runs the functor of a bound handler record with the signature the caller
// expects for that ID, R (A...). Reports a null object, then a missing or mismatched functor,
// ungated, and yields the zero value in both cases. A caller cannot tell such a failure from
// a genuine zero result.
template <typename R, typename... A>
inline R RunFunctor(const FunctorBase& record, A... args) {
    typedef MemFuncInterface<R, A...> Interface;
    Interface* functor = record.pFunctor ? dynamic_cast<Interface*>(record.pFunctor) : nullptr;
    if (record.pObject == nullptr) {
        TWPrintf(LOG_TYPE_NORMAL, nullptr, nullptr, tw_functor_detail::kSourceFile, __LINE__,
                 "operator()", "[%s] Error: Failed to run functor with DPObjectBase as NULL.\n",
                 record.szHandlerName);
        return tw_functor_detail::ZeroResult<R>();
    }
    if (functor == nullptr) {
        TWPrintf(LOG_TYPE_NORMAL, nullptr, nullptr, tw_functor_detail::kSourceFile, __LINE__,
                 "operator()",
                 "[%s] Error: Some Functor is not registered properly. Check the template argument list and Function ID.\n",
                 record.szHandlerName);
        return tw_functor_detail::ZeroResult<R>();
    }
    return (*functor)(record.pObject, args...);
}

// A class's function table: function ID to functor, complete once the module is loaded.
typedef std::map<int, MemFuncBase*> TWFuncTable;

// The table of a detector class: 0 Start, 1 Stop, 2 IsActivated, 3 IsShareEnabled,
// 4 SetDetParam. Called once from the initialiser of the class's source file. The functors
// are constructed before the table, so at unload the table is destroyed first.
template <typename Det>
TWFuncTable* RegisterDetectorFuncTable() {
    static MemFunc<int, Det> s_Start(&Det::Start);
    static MemFunc<int, Det> s_Stop(&Det::Stop);
    static MemFunc<bool, Det> s_IsActivated(&Det::IsActivated);
    static MemFunc<bool, Det> s_IsShareEnabled(&Det::IsShareEnabled);
    static MemFunc<void, Det, int, const std::map<int, std::string>&, int> s_SetDetParam(&Det::SetDetParam);
    static TWFuncTable s_Table;
    s_Table[0] = &s_Start;
    s_Table[1] = &s_Stop;
    s_Table[2] = &s_IsActivated;
    s_Table[3] = &s_IsShareEnabled;
    s_Table[4] = &s_SetDetParam;
    return &s_Table;
}
