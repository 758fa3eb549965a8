// The journal file: everything a later start needs comes back as written, and nothing that is
// not a whole journal is taken for one.
#include "KsTestSupport.h"
#include "ResourceFileEntry.h"
#include "ResourceProduct.h"
#include "TransactionJournal.h"

#include <QFile>
#include <QTemporaryDir>

using namespace KsDeploy;

namespace
{
class TransactionJournalTest : public KsTest::EngineTest
{
protected:
    QTemporaryDir mDir;
};
}

TEST_F(TransactionJournalTest, ReadsBackWhatWasWrittenForAnyProductKey)
{
    // A key with characters that must not reach a file name as they are.
    const QString key = QStringLiteral("../A b%.c");
    TransactionJournal out(mDir.path(), key);
    out.operation = QStringLiteral("install");
    out.processId = 4242;
    out.newDirs << QStringLiteral("/opt/a b/c") << QStringLiteral("/opt/%d");
    out.tempFolders << QStringLiteral("/opt/a b");
    out.registryKeys.append({QStringLiteral("HKEY_CURRENT_USER\\Software\\A b"), false});
    TransactionJournal::RegistryValueState v;
    v.keyPath = QStringLiteral("HKEY_CURRENT_USER\\Software\\A b");
    v.name = QStringLiteral("Na me");
    v.existed = true;
    v.type = 3;
    v.data = QByteArray("\x00\x01 \n", 4);
    out.registryValues.append(v);
    TransactionJournal::RegistryValueState empty = v;
    empty.name.clear();
    empty.data.clear();
    out.registryValues.append(empty);
    out.shortcuts.append(
        {QStringLiteral("/menu/a b.desktop"), true, QStringLiteral("0123456789abcdef0123456789abcdef"), 0640});
    out.shortcuts.append({QStringLiteral("/menu/new.desktop"), false, QString(), 0});

    McHandle<ResourceProduct> product(new ResourceProduct);
    product->nameSet(QStringLiteral("_") + key);
    McDArray<McHandle<Resource>> snapshot;
    snapshot.append(McHandle<Resource>(product.ptr()));
    ASSERT_TRUE(out.write(snapshot, true).isOk());

    const QStringList found = TransactionJournal::journalsIn(mDir.path());
    ASSERT_EQ(1, found.size());
    EXPECT_TRUE(found[0].startsWith(mDir.path() + "/"));
    EXPECT_FALSE(found[0].mid(mDir.path().size() + 1).contains('/'));

    TransactionJournal in{QString(), QString()};
    ASSERT_TRUE(TransactionJournal::read(found[0], in).isOk());
    EXPECT_EQ(key, in.productKey());
    EXPECT_EQ(out.snapshotPath(), in.snapshotPath());
    EXPECT_EQ(QStringLiteral("install"), in.operation);
    EXPECT_EQ(4242, in.processId);
    EXPECT_EQ(out.newDirs, in.newDirs);
    EXPECT_EQ(out.tempFolders, in.tempFolders);
    ASSERT_EQ(1, in.registryKeys.size());
    EXPECT_EQ(out.registryKeys[0].path, in.registryKeys[0].path);
    EXPECT_FALSE(in.registryKeys[0].existed);
    ASSERT_EQ(2, in.registryValues.size());
    EXPECT_EQ(v.name, in.registryValues[0].name);
    EXPECT_EQ(v.data, in.registryValues[0].data);
    EXPECT_EQ(3u, in.registryValues[0].type);
    EXPECT_TRUE(in.registryValues[0].existed);
    EXPECT_TRUE(in.registryValues[1].name.isEmpty());
    EXPECT_TRUE(in.registryValues[1].data.isEmpty());
    ASSERT_EQ(2, in.shortcuts.size());
    EXPECT_EQ(out.shortcuts[0].path, in.shortcuts[0].path);
    EXPECT_TRUE(in.shortcuts[0].existed);
    EXPECT_EQ(out.shortcuts[0].md5, in.shortcuts[0].md5);
    EXPECT_EQ(0640u, in.shortcuts[0].mode);
    EXPECT_EQ(out.shortcuts[1].path, in.shortcuts[1].path);
    EXPECT_FALSE(in.shortcuts[1].existed);

    in.remove(true);
    EXPECT_TRUE(TransactionJournal::journalsIn(mDir.path()).isEmpty());
    EXPECT_FALSE(QFile::exists(out.snapshotPath()));
}

TEST_F(TransactionJournalTest, ACutOrForeignFileIsNoJournal)
{
    TransactionJournal out(mDir.path(), QStringLiteral("App"));
    out.operation = QStringLiteral("uninstall");
    McDArray<McHandle<Resource>> none;
    ASSERT_TRUE(out.write(none, false).isOk());
    QFile f(out.path());
    ASSERT_TRUE(f.open(QIODevice::ReadOnly));
    const QByteArray whole = f.readAll();
    f.close();
    // Cut before its last line; a line that is not ours; a kept shortcut without its digest;
    // not a journal at all.
    const QByteArray cut = whole.left(whole.lastIndexOf("end"));
    for (const QByteArray& text :
         {cut, cut + "junk 1\nend\n", cut + "shortcut %2Fa 1 - 644\nend\n", QByteArray("not a journal\n")})
    {
        QFile w(out.path());
        ASSERT_TRUE(w.open(QIODevice::WriteOnly | QIODevice::Truncate));
        w.write(text);
        w.close();
        KsTest::FailureRecorder failures;
        TransactionJournal in{QString(), QString()};
        EXPECT_TRUE(TransactionJournal::read(out.path(), in).isBad()) << text.constData();
        EXPECT_TRUE(in.productKey().isEmpty());
    }
}
