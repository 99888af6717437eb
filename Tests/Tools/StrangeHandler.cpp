// Answers the question for its class with an HRESULT that tells the process's error mode; with
// STRANGE_HANDLER set it crashes instead.
#include <windows.h>

extern "C" __declspec(dllexport) __attribute__((no_sanitize("undefined"))) HRESULT WINAPI
    DllGetClassObject(REFCLSID, REFIID, void**) {
    if (GetEnvironmentVariableW(L"STRANGE_HANDLER", nullptr, 0) != 0)
        *static_cast<volatile int*>(nullptr) = 0;
    return MAKE_HRESULT(SEVERITY_ERROR, FACILITY_ITF, GetErrorMode());
}
