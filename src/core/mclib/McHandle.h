#pragma once
#include "McDbC.h"
#include "McHandable.h"
#include "McTypeName.h"

#include <cstddef>
#include <functional>
#include <string>

// Intrusive smart pointer, one pointer wide; a null handle is legal.
template <class T>
class McHandle
{
public:
    McHandle() = default;
    McHandle(T* inPtr) : mPtr(inPtr)
    {
        if (mPtr)
            mPtr->ref();
    }
    McHandle(const McHandle& inOther) : mPtr(inOther.mPtr)
    {
        if (mPtr)
            mPtr->ref();
    }
    template <class U>
    McHandle(const McHandle<U>& inOther) : mPtr(inOther.ptr())
    {
        if (mPtr)
            mPtr->ref();
    }
    McHandle(McHandle&& inOther) noexcept : mPtr(inOther.mPtr) { inOther.mPtr = nullptr; }
    ~McHandle()
    {
        if (mPtr)
            mPtr->unref();
    }

    McHandle& operator=(const McHandle& inOther)
    {
        reset(inOther.mPtr);
        return *this;
    }
    McHandle& operator=(McHandle&& inOther) noexcept
    {
        if (this != &inOther)
        {
            T* old = mPtr;
            mPtr = inOther.mPtr;
            inOther.mPtr = nullptr;
            if (old)
                old->unref();
        }
        return *this;
    }
    McHandle& operator=(T* inPtr)
    {
        reset(inPtr);
        return *this;
    }

    void reset(T* inPtr = nullptr)
    {
        // Reference the new target before releasing the old one: safe for self-assignment.
        if (inPtr)
            inPtr->ref();
        T* old = mPtr;
        mPtr = inPtr;
        if (old)
            old->unref();
    }

    bool isNull() const { return mPtr == nullptr; }
    bool isNotNull() const { return mPtr != nullptr; }

    T* operator->() const
    {
        if (!mPtr)
            report("operator ->");
        return mPtr;
    }
    T& operator*() const
    {
        if (!mPtr)
            report("operator *");
        return *mPtr;
    }
    operator const T&() const
    {
        if (!mPtr)
            report("operator const class " + McLib::typeName<T>() + " &");
        return *mPtr;
    }

    T* ptr() const { return mPtr; }
    T* get() const { return mPtr; }

    bool operator==(const McHandle& inOther) const { return mPtr == inOther.mPtr; }
    bool operator!=(const McHandle& inOther) const { return mPtr != inOther.mPtr; }
    bool operator==(const T* inOther) const { return mPtr == inOther; }
    bool operator!=(const T* inOther) const { return mPtr != inOther; }
    bool operator<(const McHandle& inOther) const { return std::less<T*>()(mPtr, inOther.mPtr); }

private:
    static void report(const std::string& inOperation)
    {
        const std::string function = "McHandle<class " + McLib::typeName<T>() + ">::" + inOperation;
        dbc_event(DbCPrecondition, "isNotNull()", "McHandle", __LINE__, function.c_str(), nullptr);
    }

    T* mPtr = nullptr;
};

namespace std
{
template <class T>
struct hash<McHandle<T>>
{
    size_t operator()(const McHandle<T>& inHandle) const noexcept { return std::hash<T*>()(inHandle.ptr()); }
};
}
