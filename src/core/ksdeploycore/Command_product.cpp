#include "Command_product.h"

#include "Cache.h"
#include "Engine.h"
#include "QxProcess.h"
#include "ResourceFileEntry.h"
#include "ResourceProduct.h"

#include <QProcessEnvironment>

using namespace KsDeploy;

KS_COMMAND_CLASS_DEFINE(Command_product, "product")

const char* const Command_product::sHelpMessageBrief =
    "Perform an action for the specified product like installation, uninstallation, verification, invocation, "
    "etc.. .";

const char* const Command_product::sHelpMessageAttributes =
    "       attribute   : action\n"
    "       occurrence  : once (required)\n"
    "       values      : install, uninstall, verify, invoke, rescan, precache, resolve\n"
    "       default     : \n"
    "           With this attribute one can select the operation that has to be performed for the specified "
    "product:\n"
    "           install   : Perform an installation.\n"
    "           uninstall : Perform a de-installation.\n"
    "           verify    : Verify an existing installation.\n"
    "           invoke    : Start an executable from an existing installation.\n"
    "           rescan    : Uptate the attributes of the rules from an existing installation (currently the MD5 "
    "for files).\n"
    "           precache  : Precache all resouces that the product demands.\n"
    "           resolve   : Replace all occurences of the given Target Configuration Keys by their current value. "
    "The replacement is performed for all Resource Properties as well as for all registered Configuration Values. "
    "Afterwards all Target Configuration Keys are removed from the Configuration.\n"
    "\n"
    "       attribute   : name\n"
    "       occurrence  : once (optional)\n"
    "       values      : string\n"
    "       default     : \n"
    "           With this attribute one can specify the name of the product. If attribute is not specified, the "
    "resource graph must have exactly one product resource in it, which then gets targeted.\n"
    "\n"
    "       attribute   : url\n"
    "       occurrence  : multiple (optional)\n"
    "       values      : string\n"
    "       default     : empty string\n"
    "           With this attribute one can specify a download-url to be used to retrieve resources from that are "
    "needed to perform the requested action.\n"
    "\n"
    "       attribute   : exename\n"
    "       occurrence  : once (required for 'invoke')\n"
    "       values      : string\n"
    "       default     : \n"
    "           For the 'invoke'-action, this attribute defines the filename of the products executable to be "
    "executed.\n"
    "\n"
    "       attribute   : exeargs\n"
    "       occurrence  : once (optional)\n"
    "       values      : string\n"
    "       default     : empty string\n"
    "           For the 'invoke'-action, this attribute defines the command-line the product gets started with.\n"
    "\n"
    "       attribute   : targetdir\n"
    "       occurrence  : once (optional for precache)\n"
    "       values      : string\n"
    "       default     : empty string\n"
    "           With this attribute one can set the target directory for the cached files. By default, the files "
    "are stored in a sub-directory 'Kestra Imaging/Auto Update/Cache' of the users temporary path.\n"
    "\n"
    "       attribute   : compress\n"
    "       occurrence  : once (optional for precache)\n"
    "       values      : true, false\n"
    "       default     : false\n"
    "           If TRUE, a second compressed version of the files is stored under the same filename but with an "
    "'_' appended.\n"
    "\n"
    "       attribute   : confkey\n"
    "       occurrence  : multiple (optional)\n"
    "       values      : string\n"
    "       default     : \n"
    "           The name of a Target Configuration Key that is to be replaced by the resolve-action.\n";

namespace
{
McResult invoke(const QString& inKey, const QxBase::Command& inCommand)
{
    McResult retVal;
    Engine& e = Engine::instance();
    McHandle<QxBase::Command::Attribute> exeName;
    McHandle<QxBase::Command::Attribute> exeArgs;
    retVal << inCommand.attribute1(exeName, QStringLiteral("exename"), true);
    retVal << inCommand.attribute1(exeArgs, QStringLiteral("exeargs"), false);
    if (retVal.isBad())
        return retVal;

    // Matched by file name: the name a person sees in the installed folder.
    McDArray<McHandle<Resource>> resources;
    e.productResources(inKey, resources);
    QString exePath;
    for (const McHandle<Resource>& resource : resources)
    {
        auto* entry = dynamic_cast<ResourceFileEntry*>(resource.ptr());
        if (entry && entry->name() == exeName->value())
        {
            exePath = entry->path();
            break;
        }
    }
    if (MC_CHECK(retVal, !exePath.isEmpty(),
                 QStringLiteral("product '%1' has no file named '%2'").arg(inKey, exeName->value())))
        return retVal;
    if (MC_CHECK_TEXT(retVal, e.configuration().resolve(exePath).isOk(), "e.configuration().resolve(exePath).isOk()",
                      QStringLiteral("unable to resolve executable '%1'").arg(exeName->value())))
        return retVal;
    const QStringList arguments =
        exeArgs.isNotNull() ? QxBase::Process::splitCommandLine(exeArgs->value()) : QStringList();
    // The program is started and left running; the command does not wait for it.
    retVal << e.sideExecutionInvoke(exePath, arguments, QProcessEnvironment::systemEnvironment().toStringList(), true,
                                    true);
    return retVal;
}
}

McResult Command_product::execute()
{
    McResult retVal;
    Engine& engine = Engine::instance();
    McDArray<McHandle<Attribute>> list;
    attributes(list, QStringLiteral("url"));
    for (const McHandle<Attribute>& url : list)
        engine.cache().httpUrlAdd(url->value());

    McHandle<Attribute> action;
    McHandle<Attribute> nameAttribute;
    retVal << attribute1(action, QStringLiteral("action"), true);
    retVal << attribute1(nameAttribute, QStringLiteral("name"), false);
    if (retVal.isBad())
        return retVal;

    QString key;
    if (nameAttribute.isNotNull())
        key = nameAttribute->value();
    else
    {
        McDArray<McHandle<Resource>> all;
        engine.resources(all);
        McDArray<McHandle<ResourceProduct>> prods;
        for (const McHandle<Resource>& resource : all)
            if (auto* product = dynamic_cast<ResourceProduct*>(resource.ptr()))
                prods.append(McHandle<ResourceProduct>(product));
        if (MC_CHECK(retVal, prods.size()==1, "unable to identify product"))
            return retVal;
        key = prods[0]->name();
    }

    const McHandle<ResourceProduct> resProduct = engine.productResource(key);
    McDArray<McHandle<Resource>> resources;
    if (resProduct.isNotNull())
        engine.productResources(key, resources);
    if (MC_CHECK(retVal, resProduct.isNotNull(), QStringLiteral("no resources for product '%1'").arg(key)))
        return retVal;
    if (MC_CHECK(retVal, resources.size() > 0, QStringLiteral("no resources for product '%1'").arg(key)))
        return retVal;

    const QString a = action->value();
    if (a == QLatin1String("install"))
        retVal << engine.productInstall(key, false);
    else if (a == QLatin1String("uninstall"))
        retVal << engine.productUninstall(key);
    else if (a == QLatin1String("verify"))
        retVal << engine.productVerify(key);
    else if (a == QLatin1String("rescan"))
        retVal << engine.productRescan(key);
    else if (a == QLatin1String("precache"))
    {
        McHandle<Attribute> targetDir;
        McHandle<Attribute> compress;
        retVal << attribute1(targetDir, QStringLiteral("targetdir"), false);
        retVal << attribute1(compress, QStringLiteral("compress"), false);
        if (retVal.isBad())
            return retVal;
        if (targetDir.isNotNull())
            engine.pathToCacheSet(targetDir->value());
        retVal << engine.productPrecache(key, commandFlag(compress));
    }
    else if (a == QLatin1String("invoke"))
        retVal << invoke(key, *this);
    else if (a == QLatin1String("resolve"))
    {
        attributes(list, QStringLiteral("confkey"));
        QList<QString> targetKeys;
        for (const McHandle<Attribute>& confKey : list)
            targetKeys.append(confKey->value());
        retVal << engine.productResolve(key, targetKeys);
        if (retVal.isOk())
            for (const QString& targetKey : targetKeys)
                engine.configuration().valueClear(targetKey);
    }
    else
        MC_CHECK_TEXT(retVal, false, "false", QStringLiteral("invalid action '%1'").arg(a));
    return retVal;
}
