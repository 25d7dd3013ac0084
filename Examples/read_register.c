/*
 * Reads a register of an I2C device and a calibration token: the smallest useful application.
 *
 *     kivboard run -- read_register          # on a PC, against the virtual board
 *     read_register /etc/kiv/conf.xml        # on a board
 */
#include <inttypes.h>
#include <stdio.h>
#include <zol/zol.h>

int main(int argc, char **argv)
{
    if (zol_init(argc > 1 ? argv[1] : "Conf/kiv_test.xml") != KIV_OK)
        return 1;

    kiv_i2c_handle sensor;
    uint8_t id = 0;
    uint32_t size = 0;
    int32_t status = kiv_i2c_open(&sensor, 4, 0x18);
    if (status == KIV_OK)
        status = kiv_i2c_read_reg8(&sensor, 0x0f, 1, &id);
    if (status == KIV_OK)
        printf("the sensor says that it is a 0x%02x\n", id);
    if (kiv_token_getSize("ACCELCAL", &size) == KIV_OK)
        printf("its calibration has %" PRIu32 " bytes\n", size);

    kiv_i2c_close(&sensor);
    zol_deinit();
    return status == KIV_OK ? 0 : 1;
}
