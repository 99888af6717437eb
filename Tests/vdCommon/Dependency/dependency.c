/* What another library needs. Built more than once, to tell which copy was found. */
__declspec(dllexport) int whichDependency(void) {
    return WHICH_DEPENDENCY;
}
