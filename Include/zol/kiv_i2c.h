/**
 * @file kiv_i2c.h
 * @brief Registers of I2C devices, over the character devices of Linux.
 *
 * At the start of the library a table of buses is made from the configuration: "i2c_buses_num" N sets up the
 * buses 0 to N (one more than the number says, at most KIV_I2C_MAX_BUSES); "i2c_bus_<n>_dev" names the device
 * node, in which one "%d" stands for the bus number; a non-zero "i2c_bus_<n>_debug" logs every open, close
 * and transfer of that bus at PRNT.
 *
 * A handle is the caller's record: one per device, opened, used and closed by one thread at a time. Different
 * handles may be used by different threads at the same time. A transfer costs the system call and nothing
 * else; nothing is allocated.
 *
 * @code
 *     kiv_i2c_handle sensor;
 *     uint8_t id = 0;
 *
 *     if (kiv_i2c_open(&sensor, 1, 0x50) == KIV_OK) {
 *         if (kiv_i2c_read_reg8(&sensor, 0x0f, 1, &id) == KIV_OK)
 *             printf("the sensor is a 0x%02x\n", id);
 *         kiv_i2c_close(&sensor);
 *     }
 * @endcode
 */
#ifndef ZOL_KIV_I2C_H
#define ZOL_KIV_I2C_H

#include <stdint.h>

#include "zol/kiv_export.h"

KIV_EXTERN_C_BEGIN

/** The capacity of the bus table. */
#define KIV_I2C_MAX_BUSES 10

/** One device on one bus. Filled by kiv_i2c_open(), emptied by kiv_i2c_close(). A record of zeros is a handle
 *  that is not open. */
typedef struct kiv_i2c_handle {
    int32_t fd;             /**< descriptor of the bus node; 0 when not open */
    int32_t bus;            /**< bus number; -1 when not open */
    uint16_t deviceAddress; /**< 7-bit address, sent with every message */
} kiv_i2c_handle;

/** Makes the bus table from the configuration. Called by zol_init().
 *  @retval KIV_OK The table is made. @retval KIV_ERR_INVALID_PARAM "i2c_buses_num" is missing or no number.
 */
KIV_API int32_t kiv_i2c_init(void);

/** Clears the bus table. Open handles stay open and are still the caller's to close. Called by zol_deinit().
 *  @retval KIV_OK Always. */
KIV_API int32_t kiv_i2c_deinit(void);

/**
 * Opens a device. Nothing is sent: whether the device answers shows with the first transfer. The record is
 * filled anew, so close a handle before opening it again.
 * @param[out] handle    The device on success, else a handle that is not open.
 * @param bus            Bus number, from 0.
 * @param deviceAddress  7-bit address.
 * @retval KIV_OK        @p handle is open.
 * @retval KIV_ERR_OPEN  The node cannot be opened, there is no such bus, the configured node name holds
 *                       anything but at most one plain integer conversion, the node got descriptor 0 because
 *                       standard input is closed, or @p handle is null.
 */
KIV_API int32_t kiv_i2c_open(kiv_i2c_handle *handle, int32_t bus, uint16_t deviceAddress);

/** Closes a device. A handle that is not open, or null, is left alone. @retval KIV_OK Always. */
KIV_API int32_t kiv_i2c_close(kiv_i2c_handle *handle);

/**
 * @name Reading
 * One transfer: the register address is written (one byte, or two with the high byte first), and after a
 * repeated start @p count bytes are read, in the order in which the device sends them.
 * @param count     Bytes to read, 0 to 65535; the kernel refuses more than 8192.
 * @param[out] out  At least @p count bytes; undefined after a failure.
 * @retval KIV_OK                 @p out is filled.
 * @retval KIV_ERR_NOT_FOUND      The transfer failed: the device did not answer, or the handle is not open.
 * @retval KIV_ERR_INVALID_PARAM  @p handle or @p out is null.
 * @{
 */
KIV_API int32_t kiv_i2c_read_reg8(kiv_i2c_handle *handle, uint8_t reg, int32_t count,
                                  uint8_t *out); /**< with an 8-bit register address */
KIV_API int32_t kiv_i2c_read_reg16(kiv_i2c_handle *handle, uint16_t reg, int32_t count,
                                   uint8_t *out); /**< with a 16-bit register address */
/** @} */

/**
 * @name Writing
 * One transfer per byte: register address and byte. Every byte goes to the same register, which is what a
 * FIFO or a command register wants; fill consecutive registers with consecutive calls.
 * @param count   How many bytes, at least 1.
 * @param values  The bytes, in order.
 * @retval KIV_OK                 All bytes were written.
 * @retval KIV_ERR_WRITE          A transfer failed; the bytes before it have been written and none after it.
 *                                Or @p count is 0; nothing is logged then.
 * @retval KIV_ERR_INVALID_PARAM  @p handle or @p values is null.
 * @{
 */
KIV_API int32_t kiv_i2c_write_reg8(kiv_i2c_handle *handle, uint8_t reg, uint32_t count,
                                   const uint8_t *values); /**< with an 8-bit register address */
KIV_API int32_t kiv_i2c_write_reg16(kiv_i2c_handle *handle, uint16_t reg, uint32_t count,
                                    const uint8_t *values); /**< with a 16-bit register address */
/** @} */

KIV_EXTERN_C_END

#endif
