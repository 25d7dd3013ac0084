// The configuration store: one XML file, loaded at start-up, searched at every look-up.

#include "zol/kiv_config.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "common/number.h"
#include "common/owner.h"
#include "common/text.h"
#include "kiv_debug/log_as.h"
#include "xml_tree.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"

namespace
{

constexpr int32_t loaded = 1;
constexpr int32_t not_loaded = 0;
constexpr int32_t not_examined = -1;

constexpr char chooser_script[] = "/usr/bin/zol_choose_conf.sh";

// Written at start-up and shut-down, which run on one thread; between them only read.
struct config_store {
    int32_t initialized;
    const char *configFile; // the caller's text
    xmlDoc *doc;            // owned
    xmlNode *root;          // in doc
    xmlNode *devices;       // in doc: where every look-up begins
};

config_store g_kiv_config;

const char *missing_part() noexcept
{
    return g_kiv_config.doc == nullptr    ? "is no complete XML document"
           : g_kiv_config.root == nullptr ? "has no root element"
                                          : "has no node named \"devices\"";
}

int32_t _kiv_config_open_file(const char *path)
{
    {
        const kiv::xml::parse_report report(path, kiv::call_site::here());
        g_kiv_config.doc = report.complete(
            xmlReadFile(path, nullptr, XML_PARSE_RECOVER | XML_PARSE_NOBLANKS | XML_PARSE_NONET));
    }
    g_kiv_config.root = g_kiv_config.doc != nullptr ? xmlDocGetRootElement(g_kiv_config.doc) : nullptr;
    g_kiv_config.devices = _kiv_config_getElement(g_kiv_config.root, "devices", "");
    if (!KIV_HOLDS(g_kiv_config.devices != nullptr)) { // nor then a root or a document
        KIV_LOG_ERRR("can't open file %s\n", path);
        KIV_LOG_ERRR("%s %s\n", path, missing_part());
        return not_loaded;
    }
    return loaded;
}

// A script names the configuration of a board that has several.
int32_t open_chosen_file(const char *missing_file, kiv::call_site site)
{
    char chosen[256] = "";
    {
        const kiv::owner<FILE, pclose> output(popen(chooser_script, "re"));
        if (output == nullptr || std::fscanf(output.get(), "%255s", chosen) != 1) {
            KIV_LOG_AT(site, ERRR, "no configuration: %s does not exist and %s names no other\n",
                       missing_file, chooser_script);
            return not_examined;
        }
    }
    KIV_LOG_AT(site, PRNT, "reading file %s\n", chosen);
    return _kiv_config_open_file(chosen);
}

int32_t load(const char *path, kiv::call_site site)
{
    struct stat status = {};
    if (path != nullptr && stat(path, &status) == 0) {
        return _kiv_config_open_file(path);
    }
    const int error = path != nullptr ? errno : EFAULT;
    if (error == ENOENT) {
        return open_chosen_file(path, site);
    }
    KIV_LOG_AT(site, ERRR, "can't examine file %s: errno %d\n", kiv::shown(path), error);
    return not_examined;
}

// A parameter's value is the content of its first child, whatever kind of node that is. Null: no content.
const char *value_of(const xmlNode *parameter, const char *section, const char *name, kiv::call_site site)
{
    if (parameter->children == nullptr) {
        return "";
    }
    const char *const value = kiv::xml::text_of(parameter->children->content);
    KIV_LOG_AT(site, INF1, "getting parameter: (%s).(%s) = (%s)\n", section, name, kiv::shown(value));
    return value;
}

const char *_kiv_config_fetch_data(const char *section, const char *id, const char *param)
{
    KIV_LOG_INF2("getting data (%s) from (%s) - start\n", kiv::shown(param), kiv::shown(section));
    xmlNode *const section_node = _kiv_config_getElement(g_kiv_config.devices, section, id);
    const xmlNode *const param_node = _kiv_config_getElement(section_node, param, id);
    const char *const value =
        param_node != nullptr ? value_of(param_node, section, param, kiv::call_site::here()) : nullptr;
    KIV_LOG_INF2("getting data (%s) from (%s) - end\n", kiv::shown(param), kiv::shown(section));
    return value;
}

// Copies a value to dst, or, without dst, measures it into size.
int32_t _kiv_config_get(const char *section, const char *id, const char *param, char *dst, size_t &size)
{
    KIV_LOG_INF2("getting (%s) id(%s) from (%s) - start\n", kiv::shown(param), kiv::shown(id),
                 kiv::shown(section));
    const char *const value = _kiv_config_fetch_data(section, id, param);
    if (value != nullptr && dst != nullptr) {
        kiv::copy_bounded(dst, size, value);
    } else if (value != nullptr) {
        size = std::strlen(value);
    }
    KIV_LOG_INF2("getting (%s) id(%s) from (%s) - end\n", kiv::shown(param), kiv::shown(id),
                 kiv::shown(section));
    return value != nullptr ? 1 : 0;
}

} // namespace

int32_t kiv_config_init(const char *configFile)
{
    if (g_kiv_config.initialized != 0) {
        return loaded;
    }
    g_kiv_config.configFile = configFile;
    const int32_t result = load(configFile, kiv::call_site::here());
    if (!KIV_HOLDS(result == loaded)) {
        KIV_LOG_ERRR("no configuration from %s: result %d\n", kiv::shown(configFile), result);
    }
    g_kiv_config.initialized = result >= not_loaded ? 1 : 0;
    return result;
}

int32_t kiv_config_deinit(void)
{
    if (g_kiv_config.initialized != 0 && g_kiv_config.doc != nullptr) {
        xmlFreeDoc(g_kiv_config.doc);
        xmlCleanupParser();
    }
    g_kiv_config = {};
    return KIV_OK;
}

int32_t kiv_config_get_param(const char *section, const char *id, const char *param, char *dst, size_t size)
{
    return _kiv_config_get(section, id, param, dst, size);
}

int32_t kiv_config_get_param_int(const char *section, const char *id, const char *param, int32_t *out)
{
    char text[32] = "";
    const int32_t found = kiv_config_get_param(section, id, param, text, sizeof text);
    if (found == 0 || out == nullptr) {
        return found;
    }
    return kiv_atoi(text, out) == KIV_OK ? 1 : 0;
}

size_t kiv_config_get_size(const char *section, const char *id, const char *param)
{
    size_t size = 0;
    _kiv_config_get(section, id, param, nullptr, size);
    KIV_LOG_INF2("get size (%s)(%s) = (%d)\n", kiv::shown(section), kiv::shown(param),
                 static_cast<int>(size));
    return size;
}

int32_t kiv_config_sscanf(const char *section, const char *id, const char *param, const char *format, ...)
{
    const char *const value = _kiv_config_fetch_data(section, id, param);
    if (value == nullptr || format == nullptr) {
        return 0;
    }
    va_list arguments;
    va_start(arguments, format);
    const int converted = std::vsscanf(value, format, arguments);
    va_end(arguments);
    return converted;
}

int32_t kiv_atoi(const char *str, int32_t *out)
{
    int32_t value = 0;
    if (str == nullptr || out == nullptr || !kiv::parse_number(str, value)) {
        return KIV_ERR_INVALID_PARAM;
    }
    *out = value;
    return KIV_OK;
}
