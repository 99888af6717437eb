#include "StructuredGuard.h"

#include <windows.h>

#include <excpt.h>

/* Named by the unwind data alone, which the compiler does not see. */
long structuredGuardFilter(EXCEPTION_POINTERS* exception, void* frame);
__attribute__((used)) long structuredGuardFilter(EXCEPTION_POINTERS* exception, void* frame) {
    (void)exception;
    (void)frame;
    return EXCEPTION_EXECUTE_HANDLER;
}

/* The guarded range is marked with assembler labels, so there must be one copy of this function, in the plain
   code section; and what is known behind the range must lie in memory, since execution may come there from
   anywhere inside it. */
__attribute__((noinline, noclone)) int runGuarded(void (*work)(void* argument), void* argument) {
    volatile int completed = 0;
    __try1(structuredGuardFilter);
    work(argument);
    completed = 1;
    __except1;
    return completed;
}
