#pragma once
#include "McDbC.h"
#include "McHandle.h"
#include "McMemory.h"
#include "McTypeName.h"

#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <type_traits>
#include <utility>

// Element types that may be moved with memmove/realloc without running constructors:
// plain data and handles (a handle is one pointer; moving it changes no count).
template <class T>
struct McIsRelocatable : std::is_trivially_copyable<T>
{
};
template <class T>
struct McIsRelocatable<McHandle<T>> : std::true_type
{
};

// Dynamic array with a fixed growth rule. Slots in [size, capacity) hold zero bytes, so
// handle and pointer slots beyond the size read as null.
template <class T>
class McDArray
{
public:
    McDArray() { ensure(isConsistent(), "isConsistent()", "McDArray", DbCPostcondition); }
    McDArray(const McDArray& inOther)
    {
        insert(0, inOther.mSize, inOther.mData);
        ensure(isConsistent(), "isConsistent()", "McDArray", DbCPostcondition);
    }
    McDArray(McDArray&& inOther) noexcept : mSize(inOther.mSize), mCapacity(inOther.mCapacity), mData(inOther.mData)
    {
        inOther.mSize = inOther.mCapacity = 0;
        inOther.mData = nullptr;
    }
    ~McDArray() { clear(); }

    McDArray& operator=(const McDArray& inOther)
    {
        if (this != &inOther)
        {
            McDArray copy(inOther);
            swap(copy);
        }
        return *this;
    }
    McDArray& operator=(McDArray&& inOther) noexcept
    {
        if (this != &inOther)
        {
            clear();
            swap(inOther);
        }
        return *this;
    }

    void swap(McDArray& inOther) noexcept
    {
        std::swap(mSize, inOther.mSize);
        std::swap(mCapacity, inOther.mCapacity);
        std::swap(mData, inOther.mData);
    }

    int64_t size() const { return mSize; }
    int64_t capacity() const { return mCapacity; }
    bool isEmpty() const { return mSize == 0; }
    T* data() { return mData; }
    const T* data() const { return mData; }
    T& operator[](int64_t i) { return mData[i]; }
    const T& operator[](int64_t i) const { return mData[i]; }
    T& last() { return mData[mSize - 1]; }
    const T& last() const { return mData[mSize - 1]; }
    T* begin() { return mData; }
    T* end() { return mData + mSize; }
    const T* begin() const { return mData; }
    const T* end() const { return mData + mSize; }

    bool isConsistent() const { return 0 <= mSize && mSize <= mCapacity && (mCapacity == 0 || mData != nullptr); }

    void append(const T& inValue) { insert(mSize, 1, &inValue); }
    void append(int64_t n, const T* inSrc) { insert(mSize, n, inSrc); }

    int64_t indexOf(const T& inValue) const
    {
        for (int64_t i = 0; i < mSize; ++i)
            if (mData[i] == inValue)
                return i;
        return -1;
    }
    bool contains(const T& inValue) const { return indexOf(inValue) >= 0; }

    void insert(int64_t addBefore, int64_t n, const T* inSrc)
    {
        ensure(addBefore <= mSize, "addBefore <= mSize", "insert", DbCPrecondition);
        if (n < 1 || addBefore > mSize || addBefore < 0)
            return;
        // A source inside this array is re-based after the storage moved.
        const bool inside = inSrc >= mData && inSrc < mData + mSize;
        const int64_t srcIndex = inside ? (inSrc - mData) : 0;
        insertMemory(addBefore, n);
        for (int64_t i = 0; i < n; ++i)
        {
            if (inside)
            {
                int64_t idx = srcIndex + i;
                if (idx >= addBefore)
                    idx += n;
                mData[addBefore + i] = mData[idx];
            }
            else
            {
                mData[addBefore + i] = inSrc[i];
            }
        }
    }

    // Opens a gap of n default (null) elements before addBefore.
    void insertMemory(int64_t addBefore, int64_t n)
    {
        ensure(addBefore >= 0, "addBefore >= 0", "insertMemory", DbCPrecondition);
        ensure(addBefore <= mSize, "addBefore <= mSize", "insertMemory", DbCPrecondition);
        ensure(n >= 0, "n >= 0", "insertMemory", DbCPrecondition);
        if (addBefore < 0 || addBefore > mSize || n <= 0)
            return;
        const int64_t needed = mSize + n;
        if (needed > mCapacity)
        {
            // Computed from the size, not the capacity, on purpose.
            int64_t newCapacity = static_cast<int64_t>(static_cast<double>(mSize) * 1.5);
            if (newCapacity < needed)
                newCapacity = needed;
            reallocate(newCapacity);
        }
        shiftUp(addBefore, n);
        mSize += n;
    }

    void remove(int64_t firstIndexToDelete, int64_t n = 1)
    {
        ensure(firstIndexToDelete < mSize, "firstIndexToDelete < mSize", "remove", DbCPrecondition);
        ensure(firstIndexToDelete + n <= mSize, "firstIndexToDelete+n <= mSize", "remove", DbCPrecondition);
        if (firstIndexToDelete < 0 || n < 1 || firstIndexToDelete >= mSize || firstIndexToDelete + n > mSize)
            return;
        // Take the removed elements out first: releasing them may re-enter this array.
        T* removed = static_cast<T*>(mcmalloc(sizeof(T) * static_cast<size_t>(n)));
        moveRange(removed, mData + firstIndexToDelete, n);
        moveRange(mData + firstIndexToDelete, mData + firstIndexToDelete + n, mSize - firstIndexToDelete - n);
        zero(mData + mSize - n, n);
        mSize -= n;
        destroy(removed, n);
        mcfree(removed);
    }

    void removeLast(int64_t n = 1)
    {
        ensure(n <= size(), "n<=size()", "removeLast", DbCPrecondition);
        if (n < 1)
            return;
        if (n > mSize)
            n = mSize;
        T* removed = static_cast<T*>(mcmalloc(sizeof(T) * static_cast<size_t>(n)));
        moveRange(removed, mData + mSize - n, n);
        zero(mData + mSize - n, n);
        mSize -= n;
        destroy(removed, n);
        mcfree(removed);
    }

    void clear()
    {
        T* data = mData;
        const int64_t size = mSize;
        mData = nullptr;
        mSize = mCapacity = 0;
        if (data)
        {
            destroy(data, size);
            mcfree(data);
        }
    }

    // Grows with zero (null) elements or shrinks to inSize; for plain data and handles only.
    void resize(int64_t inSize)
    {
        static_assert(McIsRelocatable<T>::value, "resize is for plain data and handles");
        if (inSize < mSize)
        {
            removeLast(mSize - inSize);
            return;
        }
        reserve(inSize);
        mSize = inSize;  // slots beyond the old size are zero already
    }

    void reserve(int64_t inCapacity)
    {
        if (inCapacity > mCapacity)
            reallocate(inCapacity);
    }

private:
    static void ensure(bool inOk, const char* inCondition, const char* inOperation, DbCEventType inType)
    {
        if (inOk)
            return;
        const std::string function = "McDArray<class " + McLib::typeName<T>() + ">::" + inOperation;
        dbc_event(inType, inCondition, "McDArray", __LINE__, function.c_str(), nullptr);
    }

    static void zero(T* inAt, int64_t n)
    {
        if (n > 0)
            std::memset(static_cast<void*>(inAt), 0, sizeof(T) * static_cast<size_t>(n));
    }

    // Moves n constructed elements from src to raw destination storage; src becomes raw.
    static void moveRange(T* inDst, T* inSrc, int64_t n)
    {
        if (n <= 0)
            return;
        if constexpr (McIsRelocatable<T>::value)
        {
            std::memmove(static_cast<void*>(inDst), static_cast<const void*>(inSrc),
                         sizeof(T) * static_cast<size_t>(n));
        }
        else if (inDst < inSrc)
        {
            for (int64_t i = 0; i < n; ++i)
            {
                new (inDst + i) T(std::move(inSrc[i]));
                inSrc[i].~T();
            }
        }
        else
        {
            for (int64_t i = n; i-- > 0;)
            {
                new (inDst + i) T(std::move(inSrc[i]));
                inSrc[i].~T();
            }
        }
    }

    static void destroy(T* inAt, int64_t n)
    {
        for (int64_t i = 0; i < n; ++i)
            inAt[i].~T();
    }

    void reallocate(int64_t inCapacity)
    {
        const size_t bytes = sizeof(T) * static_cast<size_t>(inCapacity);
        if constexpr (McIsRelocatable<T>::value)
        {
            mData = static_cast<T*>(mData ? mcrealloc(mData, bytes) : mcmalloc(bytes));
        }
        else
        {
            T* fresh = static_cast<T*>(mcmalloc(bytes));
            moveRange(fresh, mData, mSize);
            mcfree(mData);
            mData = fresh;
        }
        zero(mData + mSize, inCapacity - mSize);
        mCapacity = inCapacity;
    }

    // Moves [addBefore, size) up by n and default-constructs the gap.
    void shiftUp(int64_t addBefore, int64_t n)
    {
        moveRange(mData + addBefore + n, mData + addBefore, mSize - addBefore);
        for (int64_t i = 0; i < n; ++i)
        {
            if constexpr (McIsRelocatable<T>::value)
                zero(mData + addBefore + i, 1);
            else
                new (mData + addBefore + i) T();
        }
    }

    int64_t mSize = 0;
    int64_t mCapacity = 0;
    T* mData = nullptr;
};
