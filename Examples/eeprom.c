/*
 * An EEPROM with 16-bit register addresses: writes a text, byte after byte to consecutive addresses, and
 * reads it back in one transfer. The second EEPROM is write-protected: its write ends with a status.
 *
 *     kivboard run -- sh -c 'eeprom; kivboard peek 1 0x50 0x0200'
 */
#include <stdio.h>
#include <string.h>
#include <zol/zol.h>

enum { BUS = 1, PLACE = 0x0200, WRITE_CYCLE_US = 5000 };

static const char text[] = "serial 0042";

static int32_t write_text(kiv_i2c_handle *eeprom)
{
    int32_t status = KIV_OK;
    for (uint16_t i = 0; i < sizeof text && status == KIV_OK; i++) {
        status = kiv_i2c_write_reg16(eeprom, (uint16_t)(PLACE + i), 1, (const uint8_t *)&text[i]);
        kiv_thread_sleep(WRITE_CYCLE_US); /* it does not answer before it has stored the byte */
    }
    return status;
}

static int32_t write_and_verify(uint16_t address)
{
    kiv_i2c_handle eeprom;
    char read[sizeof text] = "";
    int32_t status = kiv_i2c_open(&eeprom, BUS, address);
    if (status == KIV_OK)
        status = write_text(&eeprom);
    if (status == KIV_OK)
        status = kiv_i2c_read_reg16(&eeprom, PLACE, sizeof read, (uint8_t *)read);
    kiv_i2c_close(&eeprom);

    if (status != KIV_OK)
        printf("0x%02x: not written, status %d\n", address, (int)status);
    else if (memcmp(read, text, sizeof text) != 0)
        printf("0x%02x: not what was written\n", address);
    else
        printf("0x%02x: \"%s\" is written and verified\n", address, read);
    return status;
}

int main(int argc, char **argv)
{
    if (zol_init(argc > 1 ? argv[1] : "Conf/kiv_test.xml") != KIV_OK)
        return 1;
    int32_t writable = write_and_verify(0x50);
    int32_t locked = write_and_verify(0x51);
    zol_deinit();
    return writable == KIV_OK && locked == KIV_ERR_WRITE ? 0 : 1;
}
