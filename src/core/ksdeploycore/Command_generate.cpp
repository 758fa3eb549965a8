#include "Command_generate.h"

#include "Engine.h"
#include "Generator.h"
#include "ResourceFileDirectory.h"
#include "ResourceProduct.h"
#include "ResourceRegistryKey.h"

#include <QDir>
#include <QFileInfo>

using namespace KsDeploy;

KS_COMMAND_CLASS_DEFINE(Command_generate, "generate")

const char* const Command_generate::sHelpMessageBrief =
    "Generate a resource-graph using one of the specialized build-in\n"
    "generators.\n";

const char* const Command_generate::sHelpMessageAttributes =
    "       attribute   : type\n"
    "       occurrence  : once (required)\n"
    "       values      : directory, file, registry\n"
    "       default     : \n"
    "           With this attribute one can select the generator:\n"
    "           directory: a directory resource for 'path' with a file entry\n"
    "                      for each of its files.\n"
    "           file:      the same for the single file 'path' in its folder.\n"
    "           registry:  the registry key 'key' with its values and, with\n"
    "                      'recursive', its subkeys.\n"
    "\n"
    "       attribute   : path\n"
    "       occurrence  : once (required for directory and file)\n"
    "       values      : String\n"
    "       default     : \n"
    "           The directory or file the resources are generated from.\n"
    "\n"
    "       attribute   : key\n"
    "       occurrence  : once (required for registry)\n"
    "       values      : String\n"
    "       default     : \n"
    "           The registry key the resources are generated from, starting with\n"
    "           its root, for example HKEY_CURRENT_USER\\Software\\Product.\n"
    "\n"
    "       attribute   : recursive\n"
    "       occurrence  : once (optional)\n"
    "       values      : true | false\n"
    "       default     : true\n"
    "           If TRUE, sub-directories or subkeys are generated as well.\n"
    "\n"
    "       attribute   : filter\n"
    "       occurrence  : multiple (optional)\n"
    "       values      : String\n"
    "       default     : \n"
    "           A file name pattern such as *.dll; with filters given, only the\n"
    "           matching files of each directory are generated.\n"
    "\n"
    "       attribute   : name\n"
    "       occurrence  : once (optional)\n"
    "       values      : String\n"
    "       default     : the absolute path of the directory\n"
    "           The name of the root directory resource, usually a path with a\n"
    "           configuration key such as ${TARGET}.\n"
    "\n"
    "       attribute   : product\n"
    "       occurrence  : once (optional)\n"
    "       values      : String\n"
    "       default     : \n"
    "           If given, a product of this name is created whose application\n"
    "           directory is the root directory resource.\n";

namespace
{
McResult generateFiles(const QxBase::Command& inCommand, bool inSingleFile, McHandle<ResourceFileDirectory>& outRoot)
{
    McResult retVal;
    McHandle<QxBase::Command::Attribute> path;
    McHandle<QxBase::Command::Attribute> recursiveAttribute;
    McHandle<QxBase::Command::Attribute> name;
    retVal << inCommand.attribute1(path, QStringLiteral("path"), true);
    retVal << inCommand.attribute1(recursiveAttribute, QStringLiteral("recursive"), false);
    retVal << inCommand.attribute1(name, QStringLiteral("name"), false);
    if (retVal.isBad())
        return retVal;

    QString dirPath = QDir(path->value()).absolutePath();
    QStringList filters;
    bool recursive = recursiveAttribute.isNull() || commandFlag(recursiveAttribute);
    if (inSingleFile)
    {
        const QFileInfo info(path->value());
        if (MC_CHECK(retVal, info.isFile(), QStringLiteral("file '%1' does not exist").arg(path->value())))
            return retVal;
        dirPath = info.absolutePath();
        filters.append(info.fileName());
        recursive = false;
    }
    else
    {
        McDArray<McHandle<QxBase::Command::Attribute>> list;
        inCommand.attributes(list, QStringLiteral("filter"));
        for (const McHandle<QxBase::Command::Attribute>& filter : list)
            filters.append(filter->value());
    }

    McDArray<McHandle<Resource>> resources;
    retVal << Generator::generateFromDirectory(outRoot, resources, dirPath, recursive, filters, QStringList());
    if (retVal.isOk())
        outRoot->nameSet(name.isNotNull() ? name->value() : dirPath);
    return retVal;
}
}

McResult Command_generate::execute()
{
    McResult retVal;
    McHandle<Attribute> type;
    McHandle<Attribute> product;
    retVal << attribute1(type, QStringLiteral("type"), true);
    retVal << attribute1(product, QStringLiteral("product"), false);
    if (retVal.isBad())
        return retVal;

    const QString t = type->value();
    if (t == QLatin1String("directory") || t == QLatin1String("file"))
    {
        McHandle<ResourceFileDirectory> root;
        retVal << generateFiles(*this, t == QLatin1String("file"), root);
        if (retVal.isOk() && product.isNotNull())
        {
            McHandle<ResourceProduct> resProduct(new ResourceProduct);
            resProduct->nameSet(product->value());
            resProduct->applicationDirectorySet(root);
        }
    }
    else if (t == QLatin1String("registry"))
    {
        McHandle<Attribute> key;
        McHandle<Attribute> recursiveAttribute;
        retVal << attribute1(key, QStringLiteral("key"), true);
        retVal << attribute1(recursiveAttribute, QStringLiteral("recursive"), false);
        if (retVal.isBad())
            return retVal;
        McDArray<McHandle<Resource>> resources;
        McHandle<ResourceRegistryKey> leaf;
        retVal << Generator::registryKeyChain(key->value(), resources, leaf);
        if (retVal.isOk())
            retVal << Generator::generateFromRegistry(leaf, resources,
                                                      recursiveAttribute.isNull() || commandFlag(recursiveAttribute));
        // A product reaches its registry through a link to the root of the key chain; an existing
        // product of that name (from a directory generated before) gets the link too.
        if (retVal.isOk() && product.isNotNull() && resources.size() > 0)
        {
            McHandle<ResourceProduct> resProduct = Engine::instance().productResource(product->value());
            if (resProduct.isNull())
            {
                resProduct = new ResourceProduct;
                resProduct->nameSet(product->value());
            }
            resProduct->linkAdd(*resources[0], QStringLiteral("Registry"));
        }
    }
    else
        MC_CHECK_TEXT(retVal, false, "false", QStringLiteral("invalid type '%1'").arg(t));
    return retVal;
}
