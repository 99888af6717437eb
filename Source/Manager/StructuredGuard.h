/* Runs code that may raise a structured exception, which C++ cannot catch with this compiler. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* Calls work(argument) and gives 1; gives 0 when a structured exception ended the call. What the call had not
   undone by then stays so: destructors between here and the exception do not run. Any thread. */
int runGuarded(void (*work)(void* argument), void* argument);

#ifdef __cplusplus
}
#endif
