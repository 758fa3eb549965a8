#pragma once
#include "BufferID.h"
#include "KsGlobal.h"

#include <QString>
#include <QUuid>

namespace KsDeploy
{
// Named accessor through which a resource's value is read from and written to text.
template <class OBJ_BASE>
class PropertyBase
{
public:
    PropertyBase(const QString& inName, int inOrder) : mName(inName), mOrder(inOrder) {}
    virtual ~PropertyBase() = default;

    const QString& name() const { return mName; }
    int order() const { return mOrder; }

    virtual QString read(const OBJ_BASE* inObject) const = 0;
    virtual void write(OBJ_BASE* inObject, QStringView inText) const = 0;
    // Writes only a text in exactly the form the writer writes; false for any other, with the
    // value left alone and nothing reported (a reader off the engine's thread reports nothing).
    virtual bool writeExact(OBJ_BASE* inObject, QStringView inText) const = 0;
    virtual void copyValue(OBJ_BASE* inObjectDst, const OBJ_BASE* inObjectSrc) const = 0;

    // Listing order: ascending order, then name (case-sensitive).
    bool lessThan(const PropertyBase& inOther) const
    {
        return mOrder != inOther.mOrder ? mOrder < inOther.mOrder : mName < inOther.mName;
    }

private:
    QString mName;
    int mOrder;
};

// Text forms of property values. Each parser accepts exactly what its writer writes.
// Called unqualified, so the forms of other value types are found beside their types.
QString propertyToText(const QString& inValue);
QString propertyToText(bool inValue);
QString propertyToText(const QUuid& inValue);
QString propertyToText(const BufferID& inValue);
bool propertyFromText(QStringView inText, QString& outValue);
bool propertyFromText(QStringView inText, bool& outValue);
bool propertyFromText(QStringView inText, QUuid& outValue);
bool propertyFromText(QStringView inText, BufferID& outValue);
// The same, false instead of a report for a text the writer never writes. A type whose reader
// accepts only such texts needs none of its own.
template <class T>
bool propertyFromExactText(QStringView inText, T& outValue)
{
    return propertyFromText(inText, outValue);
}
bool propertyFromExactText(QStringView inText, BufferID& outValue);

template <class OBJ_BASE, class OBJ, class T>
class Property : public PropertyBase<OBJ_BASE>
{
public:
    typedef T (OBJ::*Getter)() const;
    typedef void (OBJ::*Setter)(T);
    typedef void (OBJ::*SetterR)(const T&);

    Property(const QString& inName, int inOrder, Getter inRead, Setter inWrite)
        : PropertyBase<OBJ_BASE>(inName, inOrder), mRead(inRead), mWrite(inWrite)
    {
    }
    Property(const QString& inName, int inOrder, Getter inRead, SetterR inWriteR)
        : PropertyBase<OBJ_BASE>(inName, inOrder), mRead(inRead), mWriteR(inWriteR)
    {
    }

    QString read(const OBJ_BASE* inObject) const override
    {
        const OBJ* obj = dynamic_cast<OBJ*>(const_cast<OBJ_BASE*>(inObject));
        MC_DBC_TEXT(DbCPrecondition, obj != nullptr, "dynamic_cast<OBJ*>( const_cast<OBJ_BASE*>(inObject) ) != 0");
        MC_ASSERT(mRead!=0);
        if (!obj || !mRead)
            return QString();
        return propertyToText((obj->*mRead)());
    }

    void write(OBJ_BASE* inObject, QStringView inText) const override
    {
        OBJ* obj = dynamic_cast<OBJ*>(inObject);
        MC_DBC_TEXT(DbCPrecondition, obj != nullptr, "dynamic_cast<OBJ*>(inObject) != 0");
        T value{};
        // A text the writer would never produce is reported and leaves the value as it was.
        if (!propertyFromText(inText, value))
        {
            MC_DBC_TEXT(DbCPrecondition, false, "text form of the value");
            return;
        }
        MC_ASSERT(inObject!=0);
        store(obj, value);
    }

    bool writeExact(OBJ_BASE* inObject, QStringView inText) const override
    {
        OBJ* obj = dynamic_cast<OBJ*>(inObject);
        T value{};
        if (!obj || !propertyFromExactText(inText, value))
            return false;
        store(obj, value);
        return true;
    }

    void copyValue(OBJ_BASE* inObjectDst, const OBJ_BASE* inObjectSrc) const override
    {
        OBJ* dst = dynamic_cast<OBJ*>(inObjectDst);
        const OBJ* src = dynamic_cast<OBJ*>(const_cast<OBJ_BASE*>(inObjectSrc));
        MC_REQUIRE(dynamic_cast<OBJ*>(inObjectDst) != 0);
        MC_REQUIRE(dynamic_cast<OBJ*>( const_cast<OBJ_BASE*>(inObjectSrc) ) != 0);
        if (!dst || !src || !mRead)
            return;
        store(dst, (src->*mRead)());
    }

private:
    void store(OBJ* inObject, const T& inValue) const
    {
        if (!inObject)
            return;
        if (mWrite)
        {
            (inObject->*mWrite)(inValue);
            return;
        }
        MC_ASSERT(mWriteR!=0);
        if (mWriteR)
            (inObject->*mWriteR)(inValue);
    }

    Getter mRead = nullptr;
    Setter mWrite = nullptr;
    SetterR mWriteR = nullptr;
};

// The braced lower-case form of a UUID ({8-4-4-4-12 digits}) read in place; false, leaving
// outValue alone, for any other text.
bool uuidFromBracedText(QStringView inText, QUuid& outValue);
}
