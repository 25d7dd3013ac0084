/**
 * @file kiv_status.h
 * @brief The status codes that the operations of libzol return.
 *
 * A status is a signed 32-bit value: 0 is success, every failure is negative. A few operations answer with
 * something else (a count, "found" or "not found"); their comments say so.
 *
 * Outputs are written on success only, unless an operation says otherwise.
 *
 * A failed call of the system or of a device is logged at level ERRR before the status is returned, with the
 * reason. A status that answers a question ("does this token exist?", "is this text a number?") is not
 * logged, nor is every argument that is refused: look at the status.
 */
#ifndef ZOL_KIV_STATUS_H
#define ZOL_KIV_STATUS_H

/** Success. */
#define KIV_OK 0

/** A null or invalid argument or handle, a text that is no number, an XML document without a root element;
 *  from zol_init(): the library could not be started. */
#define KIV_ERR_INVALID_PARAM (-10)

/** A file or device node could not be opened, or its path does not fit the buffer for it. */
#define KIV_ERR_OPEN (-20)

/** An XML element does not exist; from I2C: the read transfer failed. */
#define KIV_ERR_NOT_FOUND (-21)

/** An I2C write transfer failed, or a write of no bytes was asked for. */
#define KIV_ERR_WRITE (-22)

/** A call of the system or of the thread library failed, a configuration key that a module needs is missing,
 *  or a registry record could not be allocated. */
#define KIV_ERR_SYSTEM (-30)

/** Memory is exhausted, or the caller's buffer is too small. */
#define KIV_ERR_NO_MEMORY (-40)

/** The operation is not implemented (SPI). */
#define KIV_ERR_UNIMPLEMENTED (-50)

/** A timed wait has expired. */
#define KIV_ERR_TIMEOUT (-61)

/** The module is initialised already, or is not initialised. */
#define KIV_ERR_STATE (-70)

#endif
