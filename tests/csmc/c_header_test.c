/* Compiled as C: the channel's public header must not need C++. It also exercises the
 * C entry points once, on the in-process virtual Mac that OSTREL_SMC names. */
#include <stdio.h>

#include "csmc/smc.h"

/* Installs the machine OSTREL_SMC names, as a program's main does (c_header_setup.cpp). */
void install_test_machine(void);

static int failures = 0;

#define EXPECT(cond)                                                           \
    do {                                                                       \
        if (!(cond)) {                                                         \
            fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #cond); \
            ++failures;                                                        \
        }                                                                      \
    } while (0)

int main(void) {
    smc_conn *conn = NULL;
    uint32_t count = 0;
    double rpm = 0;
    uint8_t bytes[2];

    EXPECT(sizeof(smc_param) == 80);
    EXPECT(smc_fourcc("flt") == 0x666C7420u);
    EXPECT(smc_encode_double(smc_fourcc("fpe2"), 2, bytes, 2000.0));
    EXPECT(bytes[0] == 0x1F && bytes[1] == 0x40);

    install_test_machine();
    EXPECT(smc_open(&conn) == SMC_OK);
    if (conn == NULL) {
        return 1;
    }
    EXPECT(smc_key_count(conn, &count) == SMC_OK && count > 100);
    EXPECT(smc_read_double(conn, smc_fourcc("F0Mn"), &rpm) == SMC_OK && rpm == 2160.0);
    EXPECT(smc_read_double(conn, smc_fourcc("NOPE"), &rpm) == SMC_ENOKEY);
    smc_close(conn);
    smc_close(NULL);
    return failures == 0 ? 0 : 1;
}
