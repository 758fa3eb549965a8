#include "BenchGraph.h"

#include "ResourceFileDirectory.h"
#include "ResourceFileEntry.h"
#include "ResourceProduct.h"

using namespace KsDeploy;

void KsBench::graphGenerate(int inEntries, int inDirs)
{
    McHandle<ResourceFileDirectory> root(new ResourceFileDirectory);
    root->nameSet(QStringLiteral("${TARGET}"));
    McHandle<ResourceProduct> product(new ResourceProduct);
    product->nameSet(QStringLiteral("Big"));
    product->applicationDirectorySet(root);
    McDArray<McHandle<ResourceFileDirectory>> dirs;
    for (int d = 0; d < inDirs; ++d)
    {
        McHandle<ResourceFileDirectory> dir(new ResourceFileDirectory);
        dir->nameSet(QStringLiteral("dir%1").arg(d));
        dir->containerSet(d == 0 ? root : dirs[(d - 1) / 4]);
        dirs.append(dir);
    }
    for (int i = 0; i < inEntries; ++i)
    {
        McHandle<ResourceFileEntry> entry(new ResourceFileEntry);
        entry->nameSet(QStringLiteral("file%1.dat").arg(i));
        entry->containerSet(dirs[i % inDirs]);
        McLib::MD5 md5;
        for (int b = 0; b < 16; ++b)
            md5.data()[b] = static_cast<unsigned char>((i * 31 + b * 7) & 0xff);
        entry->bufferIdSet(BufferID(md5));
    }
}
