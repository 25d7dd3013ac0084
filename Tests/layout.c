/*
 * What the public records look like in memory, on 32-bit and on 64-bit targets: applications and bindings are
 * compiled against it. Checked when it is compiled.
 */
#include <stddef.h>
#include <zol/zol.h>

#define EXPECT(value, on32, on64, what)                                                                      \
    _Static_assert((value) == (sizeof(void *) == 4 ? (on32) : (on64)), what " has moved")
#define SIZE(type, on32, on64)         EXPECT(sizeof(type), on32, on64, "the end of " #type)
#define FIELD(type, field, on32, on64) EXPECT(offsetof(type, field), on32, on64, #type "." #field)

/* Behind a time these hold where a time has the width of two pointers; elsewhere it is wider, and they do
 * not. */
#define TIME_IS_WIDE (sizeof(struct timeval) != 2 * sizeof(void *))
#define SIZE_TIMED(type, on32, on64)                                                                         \
    EXPECT(TIME_IS_WIDE ? 0 : sizeof(type), TIME_IS_WIDE ? 0 : (on32), on64, #type)
#define FIELD_TIMED(type, field, on32, on64)                                                                 \
    EXPECT(TIME_IS_WIDE ? 0 : offsetof(type, field), TIME_IS_WIDE ? 0 : (on32), on64, #type "." #field)

/* record, field, where it is on 32-bit and on 64-bit targets */
FIELD(kiv_i2c_handle, fd, 0, 0);
FIELD(kiv_i2c_handle, bus, 4, 4);
FIELD(kiv_i2c_handle, deviceAddress, 8, 8);
SIZE(kiv_i2c_handle, 12, 12);

FIELD(kiv_message, msgId, 0, 0);
FIELD(kiv_message, pData, 4, 8);
FIELD(kiv_message, reserved, 8, 16);
FIELD(kiv_message, sizeBytes, 20, 28);
FIELD(kiv_message, isSync, 24, 32);
FIELD(kiv_message, syncTimeout, 28, 36);
FIELD(kiv_message, pBarrier, 32, 40);
SIZE(kiv_message, 36, 48);

FIELD(kiv_thread_params, name, 0, 0);
FIELD(kiv_thread_params, priority, 64, 64);
FIELD(kiv_thread_params, handler, 68, 72);
FIELD(kiv_thread_params, timeout, 72, 80);
FIELD(kiv_thread_params, userData, 76, 88);
SIZE(kiv_thread_params, 80, 96);

FIELD(kiv_thread, name, 0, 0);
FIELD(kiv_thread, priority, 64, 64);
FIELD(kiv_thread, handler, 68, 72);
FIELD(kiv_thread, timeout, 72, 80);
FIELD(kiv_thread, userData, 76, 88);
FIELD(kiv_thread, gthread, 80, 96);
FIELD(kiv_thread, msgQueue, 84, 104);
FIELD(kiv_thread, running, 88, 112);
SIZE(kiv_thread, 92, 120);

FIELD(kiv_event_wait_entry, pname, 0, 0);
FIELD(kiv_event_wait_entry, fired, 4, 8);
FIELD(kiv_event_wait_entry, p_data, 8, 16);
FIELD(kiv_event_wait_entry, data_sz, 12, 24);
FIELD(kiv_event_wait_entry, actual_sz, 16, 28);
SIZE(kiv_event_wait_entry, 20, 32);

FIELD(kiv_tl_map_entry, event_id, 0, 0);
FIELD(kiv_tl_map_entry, label, 4, 8);
FIELD(kiv_tl_map_entry, state, 8, 16);
FIELD_TIMED(kiv_tl_map_entry, last_time, 12, 24);
SIZE_TIMED(kiv_tl_map_entry, 20, 40);

FIELD(kiv_tl_msg, event_id, 0, 0);
FIELD(kiv_tl_msg, value, 4, 4);
FIELD(kiv_tl_msg, stamp, 8, 8);
FIELD_TIMED(kiv_tl_msg, note, 16, 24);
SIZE_TIMED(kiv_tl_msg, 144, 152);

FIELD(kiv_tl_ctx, fp, 0, 0);
FIELD(kiv_tl_ctx, message_thread, 4, 8);
FIELD(kiv_tl_ctx, available_msgs_queue, 8, 16);
FIELD(kiv_tl_ctx, pending_msgs_queue, 12, 24);
FIELD(kiv_tl_ctx, map, 16, 32);
FIELD(kiv_tl_ctx, file_name, 20, 40);
FIELD_TIMED(kiv_tl_ctx, start_time, 148, 168);
SIZE_TIMED(kiv_tl_ctx, 156, 184);

FIELD(kiv_test_item, name, 0, 0);
FIELD(kiv_test_item, description, 4, 8);
FIELD(kiv_test_item, parameters, 8, 16);
FIELD(kiv_test_item, handler, 12, 24);
FIELD(kiv_test_item, inAll, 16, 32);
SIZE(kiv_test_item, 20, 40);

FIELD(kiv_test_params, isSimulator, 0, 0);
FIELD(kiv_test_params, isForceDebug, 4, 4);
FIELD(kiv_test_params, isFreePlay, 8, 8);
FIELD(kiv_test_params, strConfigFile, 12, 16);
FIELD(kiv_test_params, strTest, 16, 24);
FIELD(kiv_test_params, repeatNum, 20, 32);
FIELD(kiv_test_params, i2c_bus, 24, 36);
FIELD(kiv_test_params, i2c_addr, 28, 40);
FIELD(kiv_test_params, i2c_reg, 30, 42);
FIELD(kiv_test_params, i2c_val, 32, 44);
FIELD(kiv_test_params, eventId, 34, 46);
FIELD(kiv_test_params, strCommand, 36, 48);
FIELD(kiv_test_params, strDevice, 40, 56);
FIELD(kiv_test_params, strValue, 44, 64);
FIELD(kiv_test_params, strParam, 48, 72);
SIZE(kiv_test_params, 52, 80);
