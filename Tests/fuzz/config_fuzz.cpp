// Foreign bytes as a configuration file, as an XML document and as numbers. They may not make the library crash,
// hang or leak, and every result is a documented one.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "common/unique_fd.h"
#include "zol/zol.h"

namespace
{

void require(bool holds)
{
    if (!holds) {
        std::abort();
    }
}

void as_configuration(const std::string &bytes)
{
    const kiv::unique_fd file(memfd_create("conf", MFD_CLOEXEC));
    require(write(file.get(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
    const std::string path = "/proc/self/fd/" + std::to_string(file.get());
    const int32_t loaded = kiv_config_init(path.c_str());
    require(loaded == 0 || loaded == 1);
    char text[64];
    for (const char *param : {"configName", "general", "text", "comment", "i2c_buses_num"}) {
        const int32_t found = kiv_config_get_param("general", "", param, text, sizeof text);
        require(found == 0 || (found == 1 && text[63] == '\0'));
        require(kiv_config_get_size("general", "", param) <= bytes.size() * 8 + 64);
    }
    kiv_i2c_init();
    kiv_i2c_handle device = {};
    kiv_i2c_open(&device, 1, 0x50);
    kiv_i2c_close(&device);
    kiv_config_deinit();
}

void as_document(const std::string &bytes)
{
    _xmlDoc *const doc = kiv_xml_allocate(bytes.data(), static_cast<int>(bytes.size()));
    char text[64] = "";
    for (const char *element : {"t", "faceup", "text"}) {
        kiv_xml_scanElementContent(doc, element, "%63s", text);
        kiv_xml_scanAttribute(doc, element, "x", "%63s", text);
    }
    kiv_xml_delete(doc);
}

void as_number(const std::string &bytes)
{
    int32_t value = 0;
    const int32_t status = kiv_atoi(bytes.c_str(), &value);
    require(status == KIV_OK || status == KIV_ERR_INVALID_PARAM);
    require(status != KIV_OK || stoi(bytes.c_str()) == value);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static FILE *const silent = std::freopen("/dev/null", "w", stdout);
    require(silent != nullptr);
    g_debugLevel = KIV_DEBUG_LEVEL_ALL;
    const std::string bytes(reinterpret_cast<const char *>(data), size);
    as_configuration(bytes);
    as_document(bytes);
    as_number(bytes);
    return 0;
}
