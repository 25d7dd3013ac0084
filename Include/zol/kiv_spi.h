/**
 * @file kiv_spi.h
 * @brief SPI. Not implemented: the pair answers so and does nothing. The library's start and stop do not call
 * it.
 */
#ifndef ZOL_KIV_SPI_H
#define ZOL_KIV_SPI_H

#include <stdint.h>

#include "zol/kiv_export.h"

KIV_EXTERN_C_BEGIN

/** Logs "Unimplemented Case!" at ERRR. @retval KIV_ERR_UNIMPLEMENTED Always. */
KIV_API int32_t spi_init(void);

/** Logs "Unimplemented Case!" at ERRR. @retval KIV_ERR_UNIMPLEMENTED Always. */
KIV_API int32_t spi_deinit(void);

KIV_EXTERN_C_END

#endif
