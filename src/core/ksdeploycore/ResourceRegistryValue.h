#pragma once
#include "ResourceRegistryKey.h"

namespace KsDeploy
{
// A named, typed value of a registry key.
class ResourceRegistryValue : public Resource
{
public:
    // The numbers are the Windows value type codes.
    enum Type
    {
        TYPE_NONE = 0,
        TYPE_SZ = 1,
        TYPE_EXPAND_SZ = 2,
        TYPE_BINARY = 3,
        TYPE_DWORD = 4,
        TYPE_DWORD_BIG_ENDIAN = 5,
        TYPE_LINK = 6,
        TYPE_MULTI_SZ = 7,
        TYPE_RESOURCE_LIST = 8,
        TYPE_FULL_RESOURCE_DESCRIPTOR = 9,
        TYPE_RESOURCE_REQUIREMENTS_LIST = 10,
        TYPE_QWORD = 11,
    };

    ResourceRegistryValue() = default;
    ResourceRegistryValue(const ResourceRegistryValue& inOther) = default;
    ~ResourceRegistryValue() override;

    static QString Type2String(Type inType);
    static Type String2Type(const QString& inText);

    McHandle<ResourceRegistryKey> container() const { return link<ResourceRegistryKey>("Container"); }
    void containerSet(const McHandle<ResourceRegistryKey>& inKey) { linkSet("Container", inKey.ptr()); }

    Type type() const { return mType; }
    void typeSet(Type inType)
    {
        // A type, once set, stays: a value cannot change its kind of data.
        MC_REQUIRE(type()==TYPE_NONE || type()==inType);
        mType = inType;
    }
    QString value() const { return mValue; }
    void valueSet(const QString& inValue) { mValue = inValue; }

    McResult install() override;
    McResult uninstall() override;
    McResult verify() override;
    QString path() const override;
    NameRule nameRule() const override;
    const PropertyTable& properties() const override;

    // The live type and data (text form) of this value under inKey.
    McResult readFromRegistry(const ResourceRegistryKey& inKey, Type& outType, QString& outValue) const;
    // Text form <-> raw bytes: decimal for DWORD and QWORD, hexadecimal digits for BINARY
    // (lower case when written), Latin-1 for the string types with "\0" for a zero byte.
    static QByteArray binaryFromString(const QString& inValue, Type inType);
    static QString binaryToString(const QByteArray& inData, Type inType);
    // Why a text is no value of the type (empty when it is one).
    static QString textProblem(const QString& inValue, Type inType);

private:
    // The place of inKey and this value's resolved name in it.
    McResult locate(const ResourceRegistryKey& inKey, ResourceRegistryKey::Place& outKey,
                    std::string& outValueName) const;
    // The live type and raw bytes of this value under inKey.
    McResult readRaw(const ResourceRegistryKey& inKey, Type& outType, QByteArray& outData) const;

    Type mType = TYPE_NONE;
    QString mValue;
};

QString propertyToText(ResourceRegistryValue::Type inValue);
bool propertyFromText(QStringView inText, ResourceRegistryValue::Type& outValue);
bool propertyFromExactText(QStringView inText, ResourceRegistryValue::Type& outValue);
}
