#include "ResourceFactory.h"

#include "Resource.h"
#include "ResourceFileDirectory.h"
#include "ResourceFileEntry.h"
#include "ResourceFileShortcut.h"
#include "ResourceProduct.h"
#include "ResourceRegistryKey.h"
#include "ResourceRegistryValue.h"

#include <QHash>

#include <typeinfo>

using namespace KsDeploy;

namespace
{
struct Registry
{
    QHash<QString, ResourceFactory::Creator> creators;
    QHash<QByteArray, QString> classByType;
};

template <class T>
McHandle<Resource> createResource()
{
    return McHandle<Resource>(new T);
}

bool registerBuiltins();

Registry& registry()
{
    static Registry sRegistry;
    return sRegistry;
}

// Registered here rather than beside each class: a static library would drop a unit that
// nothing else references, and with it its registration.
bool registerBuiltins()
{
    bool ok = true;
    ok &= ResourceFactory::registerClass("ResourceFileDirectory", &createResource<ResourceFileDirectory>,
                                         typeid(ResourceFileDirectory).name());
    ok &= ResourceFactory::registerClass("ResourceFileEntry", &createResource<ResourceFileEntry>,
                                         typeid(ResourceFileEntry).name());
    ok &= ResourceFactory::registerClass("ResourceFileShortcut", &createResource<ResourceFileShortcut>,
                                         typeid(ResourceFileShortcut).name());
    ok &= ResourceFactory::registerClass("ResourceProduct", &createResource<ResourceProduct>,
                                         typeid(ResourceProduct).name());
    ok &= ResourceFactory::registerClass("ResourceRegistryKey", &createResource<ResourceRegistryKey>,
                                         typeid(ResourceRegistryKey).name());
    ok &= ResourceFactory::registerClass("ResourceRegistryValue", &createResource<ResourceRegistryValue>,
                                         typeid(ResourceRegistryValue).name());
    return ok;
}

Registry& builtins()
{
    static const bool sRegistered = registerBuiltins();
    (void)sRegistered;
    return registry();
}
}

bool ResourceFactory::registerClass(const QString& inClassName, Creator inCreator, const char* inTypeName)
{
    Registry& r = registry();
    if (!inCreator || !inTypeName || r.creators.contains(inClassName))
        return false;
    r.creators.insert(inClassName, inCreator);
    r.classByType.insert(QByteArray(inTypeName), inClassName);
    return true;
}

bool ResourceFactory::isRegistered(const QString& inClassName) { return builtins().creators.contains(inClassName); }

McHandle<Resource> ResourceFactory::create(const QString& inClassName)
{
    const Registry& r = builtins();
    auto it = r.creators.constFind(inClassName);
    return it == r.creators.constEnd() ? McHandle<Resource>() : it.value()();
}

QString ResourceFactory::className(const Resource* inResource)
{
    MC_REQUIRE(inResource!=0);
    if (!inResource)
        return QString();
    return builtins().classByType.value(QByteArray(typeid(*inResource).name()));
}
