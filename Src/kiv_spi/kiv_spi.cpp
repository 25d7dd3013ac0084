#include "zol/kiv_spi.h"

#include "kiv_debug/log_as.h"
#include "zol/kiv_status.h"

int32_t spi_init(void)
{
    KIV_LOG_ERRR("Unimplemented Case!\n");
    return KIV_ERR_UNIMPLEMENTED;
}

int32_t spi_deinit(void)
{
    KIV_LOG_ERRR("Unimplemented Case!\n");
    return KIV_ERR_UNIMPLEMENTED;
}
