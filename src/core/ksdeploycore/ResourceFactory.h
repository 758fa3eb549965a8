#pragma once
#include "KsGlobal.h"

#include <QString>

namespace KsDeploy
{
class Resource;

// Creates resources by class name and names the class of a resource.
class ResourceFactory
{
public:
    typedef McHandle<Resource> (*Creator)();

    static bool registerClass(const QString& inClassName, Creator inCreator, const char* inTypeName);
    static bool isRegistered(const QString& inClassName);
    static McHandle<Resource> create(const QString& inClassName);
    // Empty for a resource whose class is not registered.
    static QString className(const Resource* inResource);
};
}
