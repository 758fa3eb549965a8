#pragma once
// Intrusive reference counting; counts are plain integers (single-threaded by design).

class McHandable
{
public:
    virtual ~McHandable() = default;

    void ref() const { ++mRefCount; }
    void unref() const
    {
        if (--mRefCount == 0)
            const_cast<McHandable*>(this)->notifyDelete();
    }
    int refCount() const { return mRefCount; }

protected:
    McHandable() = default;
    // A copy starts with a count of its own.
    McHandable(const McHandable&) : mRefCount(0) {}
    McHandable& operator=(const McHandable&) { return *this; }

    virtual void notifyDelete() { delete this; }

private:
    mutable int mRefCount = 0;
};
