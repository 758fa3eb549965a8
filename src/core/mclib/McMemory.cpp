#include "McMemory.h"

#include <cstdlib>

void* mcmalloc(size_t inSize) { return std::malloc(inSize ? inSize : 1); }
void* mcrealloc(void* inPtr, size_t inSize) { return std::realloc(inPtr, inSize ? inSize : 1); }
void mcfree(void* inPtr) { std::free(inPtr); }
