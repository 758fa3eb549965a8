#pragma once
// The shape every engine command shares: created only through its factory, registered under
// its name, help texts held as static members.
#include "KsGlobal.h"
#include "QxCommand.h"

#define KS_COMMAND_CLASS_BODY(CLASS)                                                                                   \
public:                                                                                                                \
    CLASS(const CLASS&) = default;                                                                                     \
    CLASS& operator=(const CLASS&) = default;                                                                          \
    static McHandle<QxBase::Command> factory();                                                                        \
    static void registerMe();                                                                                          \
    QString name() const override;                                                                                     \
    const char* helpMessageBrief() override;                                                                           \
    const char* helpMessageAttributes() override;                                                                      \
    static const char* const sHelpMessageBrief;                                                                        \
    static const char* const sHelpMessageAttributes;                                                                   \
                                                                                                                       \
private:                                                                                                               \
    CLASS() = default;                                                                                                 \
    ~CLASS() override = default;

// The definitions that go with KS_COMMAND_CLASS_BODY.
#define KS_COMMAND_CLASS_DEFINE(CLASS, NAME)                                                                           \
    McHandle<QxBase::Command> CLASS::factory() { return McHandle<QxBase::Command>(new CLASS); }                        \
    void CLASS::registerMe() { QxBase::Command::registerFactory(QStringLiteral(NAME), &CLASS::factory); }              \
    QString CLASS::name() const { return QStringLiteral(NAME); }                                                       \
    const char* CLASS::helpMessageBrief() { return sHelpMessageBrief; }                                                \
    const char* CLASS::helpMessageAttributes() { return sHelpMessageAttributes; }

namespace KsDeploy
{
// Registers every command of the engine library with the command framework.
void commandsRegisterAll();
// "true" exactly; every other text, "TRUE" included, is false.
inline bool commandFlag(const McHandle<QxBase::Command::Attribute>& inAttribute)
{
    return inAttribute.isNotNull() && inAttribute->value() == QLatin1String("true");
}
}
