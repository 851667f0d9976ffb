/* Compiled as C: the channel's public header must not need C++, and its entry points link
 * from C. They run once, on the in-process virtual Mac that OSTREL_SMC names; what they
 * do is the C++ tests' subject. */
#include <stdio.h>

#include "csmc/smc.h"

/* Installs the machine OSTREL_SMC names, as a program's main does (c_header_setup.cpp). */
void install_test_machine(void);

int main(void) {
    smc_conn *conn = NULL;
    uint32_t count = 0;
    double rpm = 0;
    uint8_t bytes[2];
    /* The record's layout is the kernel's: C and C++ must agree on it. */
    int ok = sizeof(smc_param) == 80 && smc_fourcc("flt") == 0x666C7420u &&
             smc_encode_double(smc_fourcc("fpe2"), 2, bytes, 2000.0) && bytes[0] == 0x1F;
    install_test_machine();
    ok = ok && smc_open(&conn) == SMC_OK && smc_key_count(conn, &count) == SMC_OK && count > 100 &&
         smc_read_double(conn, smc_fourcc("F0Mn"), &rpm) == SMC_OK && rpm == 2160.0 &&
         smc_read_double(conn, smc_fourcc("NOPE"), &rpm) == SMC_ENOKEY;
    smc_close(conn);
    smc_close(NULL);
    if (!ok) {
        fprintf(stderr, "the channel's C entry points did not answer as they do from C++\n");
    }
    return ok ? 0 : 1;
}
