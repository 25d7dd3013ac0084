/*
 * The sizes of the public records on 32-bit and on 64-bit targets: applications and bindings are compiled against
 * them. The compiler checks it; the comparison with the reference in Packaging/abi checks every field.
 */
#include <zol/zol.h>

#define SIZE(type, on32, on64)                                                                               \
    _Static_assert(sizeof(type) == (sizeof(void *) == 4 ? (on32) : (on64)),                                  \
                   "the size of " #type " has changed")

SIZE(kiv_i2c_handle, 12, 12);
SIZE(kiv_message, 36, 48);
SIZE(kiv_thread_params, 80, 96);
SIZE(kiv_thread, 92, 120);
SIZE(kiv_event_wait_entry, 20, 32);
SIZE(kiv_test_item, 20, 40);
SIZE(kiv_test_params, 52, 80);

/* Some 32-bit targets have a time of 64 bits; the sizes of these records differ there. */
#define SIZE_TIMED(type, on32, on64)                                                                         \
    SIZE(type, sizeof(struct timeval) == 2 * sizeof(void *) ? (on32) : sizeof(type), on64)

SIZE_TIMED(kiv_tl_map_entry, 20, 40);
SIZE_TIMED(kiv_tl_msg, 144, 152);
SIZE_TIMED(kiv_tl_ctx, 156, 184);
