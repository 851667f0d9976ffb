/* Compiled as C: the channel's public header must not need C++, and its entry points link
 * from C. What they do is the C++ tests' subject; this program only calls them. */
#include <stdio.h>

#include "csmc/smc.h"

int main(void) {
    smc_conn *conn = NULL;
    uint8_t bytes[2];
    /* The record's layout is the kernel's: C and C++ must agree on it. No machine is
     * installed here, so opening fails and says why. */
    int ok = sizeof(smc_param) == 80 && smc_fourcc("flt") == 0x666C7420u &&
             smc_encode_double(smc_fourcc("fpe2"), 2, bytes, 2000.0) && bytes[0] == 0x1F &&
             smc_open(&conn) == SMC_ENOSERVICE && conn == NULL && smc_open_detail()[0] != '\0';
    smc_close(NULL);
    if (!ok) {
        fprintf(stderr, "the channel's C entry points did not answer as they do from C++\n");
    }
    return ok ? 0 : 1;
}
