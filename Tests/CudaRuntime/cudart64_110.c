/* Stands in for the CUDA runtime: device memory is host memory, and a test says what the device has to
 * report. */
#include <stddef.h>
#include <string.h>

#define EXPORT __declspec(dllexport)

static size_t g_free = (size_t)6 << 30;
static size_t g_total = (size_t)8 << 30;
static int g_error = 0;
static int g_copies = 0;

/* What cudaMemGetInfo answers from now on, in bytes. */
EXPORT void standInSetMemory(size_t freeBytes, size_t totalBytes) {
    g_free = freeBytes;
    g_total = totalBytes;
}

/* The error number that every function fails with from now on; 0 for none. What it gives then is no answer.
 */
EXPORT void standInSetError(int error) {
    g_error = error;
}

/* The copies asked for so far, failed ones included. */
EXPORT int standInCopies(void) {
    return g_copies;
}

EXPORT int cudaMemGetInfo(size_t* freeBytes, size_t* totalBytes) {
    *freeBytes = g_free;
    *totalBytes = g_total;
    return g_error;
}

#ifndef STAND_IN_LACKS_MEMCPY
EXPORT int cudaMemcpy(void* destination, const void* source, size_t size, int kind) {
    enum { deviceToHost = 2, byAddress = 4, invalidDirection = 21 };
    ++g_copies;
    if (kind != deviceToHost && kind != byAddress)
        return invalidDirection;
    if (g_error != 0)
        return g_error;
    memcpy(destination, source, size);
    return 0;
}
#endif
