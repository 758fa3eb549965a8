// The command-line parser: attribute names declared by the help texts, the check of a command
// stream with the place of each mistake, and the replay of the parser's fuzz inputs.
#include "../fuzz/FuzzCommandLineCheck.h"
#include "Engine.h"
#include "KsCommand.h"
#include "KsTestSupport.h"

#include <QDir>
#include <QFile>

using namespace KsDeploy;

namespace
{
class QxCommandTest : public KsTest::EngineTest
{
protected:
    void SetUp() override
    {
        KsTest::EngineTest::SetUp();
        commandsRegisterAll();
    }
};
}

TEST_F(QxCommandTest, DeclaredAttributesComeFromTheHelpText)
{
    EXPECT_EQ(QStringList({"target", "gv", "compress"}),
              QxBase::Command::attributeNamesDeclared(QxBase::Command::create("save")->helpMessageAttributes()));
    EXPECT_TRUE(QxBase::Command::attributeIsAccepted("config", "anything"));
    EXPECT_TRUE(QxBase::Command::attributeIsAccepted("product", "url"));
    EXPECT_FALSE(QxBase::Command::attributeIsAccepted("product", "ulr"));
    EXPECT_FALSE(QxBase::Command::attributeIsAccepted("help", "Command"));
    EXPECT_FALSE(QxBase::Command::attributeIsAccepted("nosuch", "x"));
}

TEST_F(QxCommandTest, StreamArgumentsKeepTheirLinesAndMistakesNameThem)
{
    QList<QString> arguments;
    QList<int> lines;
    Command_commands::argumentsFromBytes("--load\r\n\n  \t\nfile=a b.xml  \n--save\ntarget=x", arguments, lines);
    EXPECT_EQ(QList<QString>({"--load", "file=a b.xml", "--save", "target=x"}), arguments);
    EXPECT_EQ(QList<int>({1, 4, 5, 6}), lines);

    const QStringList origins({"s.txt, line 1", "s.txt, line 4", "s.txt, line 5", "s.txt, line 6"});
    EXPECT_EQ("", QxBase::CommandLine::syntaxCheck(arguments, true, origins));
    arguments[3] = "taget=x";
    EXPECT_EQ("unknown attribute 'taget' of command '--save' (s.txt, line 6)",
              QxBase::CommandLine::syntaxCheck(arguments, true, origins));
    EXPECT_EQ("unknown attribute 'taget' of command '--save'", QxBase::CommandLine::syntaxCheck(arguments, false));
}

// A plugin's commands may follow it: what comes after the plugin is checked once it has registered
// them, and still before any command runs.
TEST_F(QxCommandTest, CommandsOfAPluginAreCheckedOnceItIsRegistered)
{
    const QList<QString> line(
        {"--config", "A=1", "--plugin", "name=KestraClientBuildSystem", "--generateProductXML", "nme=x"});
    EXPECT_EQ("unknown command '--generateProductXML'", QxBase::CommandLine::syntaxCheck(line, false));
    int checkedEnd = -1;
    EXPECT_EQ("", QxBase::CommandLine::syntaxCheck(line, false, QStringList(), &checkedEnd));
    EXPECT_EQ(4, checkedEnd);

    QxBase::CommandLine commandLine;
    EXPECT_EQ(QxBase::CommandLine::OutcomeSyntaxError, commandLine.run(line));
    EXPECT_EQ("unknown attribute 'nme' of command '--generateProductXML'", commandLine.syntaxError());
    // Nothing ran: the configuration value was never set.
    EXPECT_FALSE(Engine::instance().configuration().valueIsDefined("A"));
    EXPECT_TRUE(Engine::instance().pluginIsRegistered("KestraClientBuildSystem"));
}

// Every seed and every finding of the parser's fuzz target passes its check.
TEST_F(QxCommandTest, FuzzInputsPass)
{
    int replayed = 0;
    for (const char* kind : {"corpus", "regressions"})
    {
        const QString folder = QStringLiteral(KSDEPLOY_SOURCE_DIR "/fuzz/%1/command_line").arg(kind);
        for (const QString& name : QDir(folder).entryList(QDir::Files, QDir::Name))
        {
            QFile file(folder + "/" + name);
            ASSERT_TRUE(file.open(QIODevice::ReadOnly)) << name.toStdString();
            EXPECT_EQ("", KsFuzz::checkCommandStream(file.readAll())) << name.toStdString();
            ++replayed;
        }
    }
    EXPECT_GT(replayed, 0);
}
