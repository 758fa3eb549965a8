#pragma once
// The benchmarks' large product: inEntries file entries with distinct digests spread over
// inDirs folders below ${TARGET}, registered in the engine's pool as product "Big".
namespace KsBench
{
void graphGenerate(int inEntries, int inDirs);
}
