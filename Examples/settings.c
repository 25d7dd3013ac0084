/*
 * Reads settings of the configuration, with a default for a missing one, a calibration from a token that holds
 * XML, and a binary token. It needs no board.
 *
 *     settings [CONFIGURATION]
 */
#include <inttypes.h>
#include <stdio.h>
#include <zol/zol.h>

static void show_settings(void)
{
    char name[32] = "unnamed";
    char node[64] = "";
    int32_t baud = 115200; /* the default: a missing key leaves it as it is */
    kiv_config_get_param("general", "", "configName", name, sizeof name);
    kiv_config_get_param("general", "", "i2c_bus_4_dev", node, sizeof node);
    int32_t found = kiv_config_get_param_int("general", "", "baud", &baud);
    printf("board %s, bus 4 at %s, %" PRId32 " baud%s\n", name, node, baud, found == 1 ? "" : " by default");
}

static int show_calibration(void)
{
    char xml[512];
    uint32_t size = 0;
    if (kiv_token_getData("ACCELCAL.xml", xml, sizeof xml, &size) != KIV_OK)
        return -1;

    struct _xmlDoc *document = kiv_xml_allocate(xml, (int)size);
    char version[16] = "?";
    int x = 0, y = 0, z = 0;
    int failed = document == NULL || kiv_xml_scanAttribute(document, "t", "ver", "%15s", version) != KIV_OK ||
                 kiv_xml_scanAttribute(document, "faceup", "x", "%d", &x) != KIV_OK ||
                 kiv_xml_scanAttribute(document, "faceup", "y", "%d", &y) != KIV_OK ||
                 kiv_xml_scanAttribute(document, "faceup", "z", "%d", &z) != KIV_OK;
    kiv_xml_delete(document);
    if (failed)
        return -1;
    printf("calibration %s: %d %d %d\n", version, x, y, z);
    return 0;
}

static int show_binary_token(const char *name)
{
    uint8_t start[4];
    uint32_t size = 0, read = 0;
    if (kiv_token_isExist(name) != KIV_OK) {
        printf("%s: no such token\n", name);
        return 0;
    }
    if (kiv_token_getSize(name, &size) != KIV_OK ||
        kiv_token_getData(name, start, sizeof start, &read) != KIV_OK)
        return -1;
    printf("%s: %" PRIu32 " bytes, beginning with", name, size);
    for (uint32_t i = 0; i < read; i++)
        printf(" %02x", start[i]);
    printf("\n");
    return 0;
}

int main(int argc, char **argv)
{
    if (zol_init(argc > 1 ? argv[1] : "Conf/kiv_test.xml") != KIV_OK)
        return 1;
    show_settings();
    int failed =
        show_calibration() != 0 || show_binary_token("BINTOKEN") != 0 || show_binary_token("GYROCAL") != 0;
    zol_deinit();
    return failed;
}
