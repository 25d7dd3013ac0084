/**
 * @file kiv_token.h
 * @brief Tokens: blobs of calibration data and the like, one file each in the board's token directory.
 *
 * A token's file is the token directory, a "/", and the name as given; the whole path holds at most 63
 * characters. The store interprets nothing, caches nothing and keeps no file open. Any number of threads may
 * ask at the same time.
 *
 * Common results: KIV_ERR_OPEN when the file is missing, unreadable, a directory or a FIFO (not logged as an
 * error: asking is how one finds out) or when the path is too long (logged). A null name fails an assertion
 * and gives KIV_ERR_OPEN.
 */
#ifndef ZOL_KIV_TOKEN_H
#define ZOL_KIV_TOKEN_H

#include <stddef.h>
#include <stdint.h>

#include "zol/kiv_export.h"

KIV_EXTERN_C_BEGIN

/** The token directory; empty while the store is not started, so that a token "X" is then looked up as "/X".
 *  Written by kiv_token_init() and kiv_token_deinit() only. */
extern KIV_API char g_tokensPath[64];

/** Takes the token directory from the configuration key "systemTokensPath". Called by zol_init().
 *  @retval KIV_OK The directory is set. @retval KIV_ERR_SYSTEM The key is missing. */
KIV_API int32_t kiv_token_init(void);

/** Forgets the token directory. Called by zol_deinit(). */
KIV_API void kiv_token_deinit(void);

/** Tells whether a token can be read. Mind the sense: success, 0, means that it exists.
 *  @retval KIV_OK It exists. @retval KIV_ERR_OPEN It does not. */
KIV_API int32_t kiv_token_isExist(const char *name);

/**
 * Gives the size of a token.
 * @param[out] size  Bytes; may be null.
 * @retval KIV_OK          @p size is set.
 * @retval KIV_ERR_OPEN    There is no such token.
 * @retval KIV_ERR_SYSTEM  The size cannot be told, or does not fit 32 bits; one ERRR line says so.
 */
KIV_API int32_t kiv_token_getSize(const char *name, uint32_t *size);

/**
 * Reads a token from its start.
 * @param[out] buf        At least @p size bytes.
 * @param size            How much to read at the most. A shorter token is not an error.
 * @param[out] readBytes  How much was read; may be null.
 * @retval KIV_OK                 @p buf and @p readBytes are set.
 * @retval KIV_ERR_OPEN           There is no such token.
 * @retval KIV_ERR_SYSTEM         Reading failed on the way; one ERRR line says so, @p buf may be filled in
 *                                part.
 * @retval KIV_ERR_INVALID_PARAM  @p buf is null and @p size is not 0.
 */
KIV_API int32_t kiv_token_getData(const char *name, void *buf, size_t size, uint32_t *readBytes);

KIV_EXTERN_C_END

#endif
