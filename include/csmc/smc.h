/*
 * csmc: the channel to the System Management Controller.
 *
 * Every operation exchanges one fixed 80-byte parameter record with the SMC through the
 * connection's transport (the Linux applesmc driver, the virtual Mac's socket, or an
 * in-process virtual SMC) and returns a signed 32-bit status code (SMC_OK or one of the
 * SMC_E* codes below; any other negative value is an IOKit-style kernel return code passed
 * through unchanged).
 *
 * Each connection keeps a cache of key information (type, size, attributes, and the fact
 * that a key does not exist), so a key's information is asked of the SMC at most once per
 * connection. Only that cache is locked; exchanges run outside the lock and may be issued
 * from any thread.
 *
 * This header is plain C (C11) so that it can be used from C as well as C++.
 */
#ifndef CSMC_SMC_H
#define CSMC_SMC_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Status codes. */
enum {
    SMC_OK = 0,
    SMC_ENOSERVICE = -1,     /* no SMC service (no device, no virtual Mac configured) */
    SMC_EOPEN = -2,          /* the service exists but opening it failed */
    SMC_ENOKEY = -3,         /* the SMC does not know the key (result 0x84), or the cache says so */
    SMC_ESIZE = -4,          /* key size above 32, write length differs, or #KEY not 4 bytes */
    SMC_ETYPE = -5,          /* the value's type cannot be decoded (smc_read_double) */
    SMC_ENOTPRIVILEGED = -6, /* the kernel refused the call as not privileged */
    SMC_EFIRMWARE = -7,      /* the SMC answered with a result other than 0 and 0x84 */
    SMC_ENOMEM = -8          /* out of memory */
};

/* Commands (the byte at offset 42 of the parameter record). */
enum { SMC_CMD_READ = 5, SMC_CMD_WRITE = 6, SMC_CMD_KEY_AT_INDEX = 8, SMC_CMD_KEY_INFO = 9 };

/* Result bytes (offset 40 of the answer). 0x84 is "key not found"; the others are firmware
 * refusals as a real SMC reports them. */
#define SMC_RESULT_OK 0x00u
#define SMC_RESULT_KEY_NOT_FOUND 0x84u
#define SMC_RESULT_NOT_READABLE 0x85u
#define SMC_RESULT_NOT_WRITABLE 0x86u
#define SMC_RESULT_SIZE_MISMATCH 0x87u
#define SMC_RESULT_BAD_ARGUMENT 0x89u
#define SMC_RESULT_INDEX_RANGE 0xB8u

/* IOKit return codes that transports use for kernel-level failures. */
#define SMC_KERN_ERROR 0xE00002BCu          /* general error */
#define SMC_KERN_NO_DEVICE 0xE00002C0u      /* the device went away */
#define SMC_KERN_NOT_PRIVILEGED 0xE00002C1u /* becomes SMC_ENOTPRIVILEGED */
#define SMC_KERN_BAD_ARGUMENT 0xE00002C2u   /* malformed request */
#define SMC_KERN_IO_ERROR 0xE00002CAu       /* the hardware handshake failed */
#define SMC_KERN_BUSY 0xE00002D5u           /* the device is in use by someone else */
#define SMC_KERN_NOT_RESPONDING 0xE00002EDu /* no answer (e.g. the virtual Mac is gone) */
#define SMC_KERN_NOT_PERMITTED                               \
    0xE00002E2u /* a read the caller may not make (applesmc: \
                   selecting a key is root's) */

#define SMC_MAX_DATA 32

/* The parameter record: exactly 80 bytes, native byte order, zero-filled before every
 * exchange (input and output alike). */
typedef struct smc_param {
    uint32_t key;         /*  0: four-character code, first character most significant */
    uint8_t reserved[24]; /*  4: always zero */
    uint32_t data_size;   /* 28: the key's value size in bytes */
    uint32_t data_type;   /* 32: four-character type code */
    uint8_t attributes;   /* 36 */
    uint8_t padding1[3];  /* 37 */
    uint8_t result;       /* 40: 0 success, 0x84 key not found, other: firmware error */
    uint8_t status;       /* 41: not used */
    uint8_t command;      /* 42: SMC_CMD_* */
    uint8_t padding2;     /* 43 */
    uint32_t index;       /* 44: input of SMC_CMD_KEY_AT_INDEX */
    uint8_t bytes[32];    /* 48: value bytes */
} smc_param;

#ifdef __cplusplus
#define CSMC_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define CSMC_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif
CSMC_STATIC_ASSERT(sizeof(smc_param) == 80, "smc_param must be 80 bytes");
CSMC_STATIC_ASSERT(offsetof(smc_param, key) == 0, "key at 0");
CSMC_STATIC_ASSERT(offsetof(smc_param, reserved) == 4, "reserved at 4");
CSMC_STATIC_ASSERT(offsetof(smc_param, data_size) == 28, "data size at 28");
CSMC_STATIC_ASSERT(offsetof(smc_param, data_type) == 32, "data type at 32");
CSMC_STATIC_ASSERT(offsetof(smc_param, attributes) == 36, "attributes at 36");
CSMC_STATIC_ASSERT(offsetof(smc_param, result) == 40, "result at 40");
CSMC_STATIC_ASSERT(offsetof(smc_param, status) == 41, "status at 41");
CSMC_STATIC_ASSERT(offsetof(smc_param, command) == 42, "command at 42");
CSMC_STATIC_ASSERT(offsetof(smc_param, index) == 44, "index at 44");
CSMC_STATIC_ASSERT(offsetof(smc_param, bytes) == 48, "value bytes at 48");

/* What the SMC says about a key. */
typedef struct smc_key_info {
    uint32_t key;
    uint32_t type;
    uint32_t size;
    uint8_t attributes;
} smc_key_info;

/* One read. The first `size` bytes are the value; the rest are what the answer held. */
typedef struct smc_value {
    uint32_t key;
    uint32_t type;
    uint32_t size;
    uint8_t bytes[SMC_MAX_DATA];
} smc_value;

/* An open connection; opaque. */
typedef struct smc_conn smc_conn;

/* The four-character code of a NUL-terminated text: the first four characters, first one
 * most significant, positions past the end counting as blanks ("flt" -> 'flt '). */
uint32_t smc_fourcc(const char *text);

/* Opens a connection on the transport named by the environment variable OSTREL_SMC
 * ("memory:PROFILE", "vsmc:SOCKET", "applesmc[:DIR]"; unset: the platform default), as
 * the program's main read it at start-up and installed with the transports it offers
 * (csmc::installProcessMachine in csmc/transport_registry.h); without that, SMC_ENOSERVICE.
 * Sets *out to NULL first, then to the new connection. Returns SMC_OK, SMC_ENOSERVICE,
 * SMC_EOPEN or SMC_ENOMEM. */
int32_t smc_open(smc_conn **out);

/* Why the calling thread's last failed smc_open failed, in words (for example a profile's
 * parse error with file and line); "" when it did not fail or there is nothing to add.
 * The text stays valid until the thread's next smc_open. */
const char *smc_open_detail(void);

/* Why the calling thread's last failed call failed, in the platform's words, when the
 * transport knows more than the status code says: the errno text and the file on applesmc
 * ("applesmc: reading /sys/.../key_at_index_data: No such device"), what the socket did on
 * vsmc. "" when there is nothing to add. Meaningful right after a call that returned a
 * kernel-level status (SMC_ENOTPRIVILEGED or a kernel code); valid until the thread's next
 * call. */
const char *smc_error_detail(void);

/* Closes the transport, frees the cache and the record. NULL is accepted and ignored. */
void smc_close(smc_conn *conn);

/* The key's information, from the cache or from one exchange. Returns SMC_OK (output
 * filled), SMC_ENOKEY, or the exchange's status. The output is written only on success. */
int32_t smc_key_info_get(smc_conn *conn, uint32_t key, smc_key_info *out);

/* Stores key information known from elsewhere (the discovery cache) as an existing key. */
void smc_key_info_seed(smc_conn *conn, const smc_key_info *info);

/* The number of keys in the SMC's key table ("#KEY"). */
int32_t smc_key_count(smc_conn *conn, uint32_t *out);

/* The key at a zero-based index of the key table; *out is untouched on failure. */
int32_t smc_key_at_index(smc_conn *conn, uint32_t index, uint32_t *out);

/* Reads a key's value. */
int32_t smc_read(smc_conn *conn, uint32_t key, smc_value *out);

/* Writes exactly the key's size in bytes. A key lookup the kernel refuses as not permitted
 * (SMC_KERN_NOT_PERMITTED) makes the write SMC_ENOTPRIVILEGED. */
int32_t smc_write(smc_conn *conn, uint32_t key, const uint8_t *bytes, uint32_t count);

/* Reads a key and decodes it as a number: smc_read's status, SMC_ETYPE when the type or
 * size cannot be decoded, or SMC_OK with *out written. */
int32_t smc_read_double(smc_conn *conn, uint32_t key, double *out);

/* Decodes `count` bytes of the given type into *out. Returns false (leaving *out alone)
 * when the type is unknown or the count is not the one the type needs. */
bool smc_decode_double(uint32_t type, const uint8_t *bytes, uint32_t count, double *out);

/* Zeroes `count` bytes of `out`, then encodes `value` into them. Returns false when the
 * type, count or value cannot be encoded. */
bool smc_encode_double(uint32_t type, uint32_t count, uint8_t *out, double value);

/*
 * Temperature-sensor services: sensors a machine publishes outside the SMC's key table.
 * On Linux these are the hwmon temperature inputs of every chip but applesmc's own, named
 * "<chip word> <label>" ("CPU Core 0", "SSD Composite"); on a virtual Mac (OSTREL_SMC
 * naming one) they are its sensor list. The set of services and their names are fixed when
 * the handle opens. A handle is read by one thread at a time.
 */

/* One reading: a NUL-terminated UTF-8 name and a temperature in degrees Celsius. */
typedef struct smc_hid_reading {
    char name[64];
    double celsius;
} smc_hid_reading;

typedef struct smc_hid smc_hid;

/* Finds the services once. NULL when there are none or they cannot be reached. */
smc_hid *smc_hid_open(void);

/* The number of services; 0 for NULL. */
int32_t smc_hid_count(const smc_hid *hid);

/* Reads every service's current temperature into `out` (at most `capacity` records),
 * skipping services without a reading or with a value outside 0 < t <= 150. The output is
 * packed: only a record's name says which service it came from. Returns the number of
 * records written. */
int32_t smc_hid_read(smc_hid *hid, smc_hid_reading *out, int32_t capacity);

/* Releases the handle; NULL is accepted and ignored. */
void smc_hid_close(smc_hid *hid);

#ifdef __cplusplus
}
#endif

#endif /* CSMC_SMC_H */
