/* A library for LD_PRELOAD in the vetting tests: any code at all, mapped executable. */
int ostrel_preload_probe(void) {
    return 1;
}
