/* A library that cannot be loaded without another one. */
__declspec(dllimport) int whichDependency(void);

__declspec(dllexport) int askDependency(void) {
    return whichDependency();
}
