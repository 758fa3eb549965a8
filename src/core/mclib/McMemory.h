#pragma once
#include <cstddef>

// Raw storage used by McDArray; thin wrappers so that allocation can be traced in one place.
void* mcmalloc(size_t inSize);
void* mcrealloc(void* inPtr, size_t inSize);
void mcfree(void* inPtr);
