/**
 * @file kiv_config.h
 * @brief Settings from the configuration file, numbers in text, and small XML documents.
 *
 * The configuration is one XML file, read at the start of the library and kept until its stop:
 *
 * @code{.xml}
 *     <board>
 *       <devices>
 *         <general>
 *           <configName>board-a</configName>
 *           <debugLevel>2</debugLevel>
 *           <systemTokensPath>/opt/tokens</systemTokensPath>
 *           <i2c_buses_num>1</i2c_buses_num>
 *         </general>
 *       </devices>
 *     </board>
 * @endcode
 *
 * The root may have any name. A section is the first element of its name found depth-first from "devices" on,
 * a parameter the first of its name from its section on; what follows later in the file is searched too, so a
 * parameter that its section lacks is taken from a later section. A value is the text in the parameter's
 * element, up to its first child element. Attributes do not count. The names "text" and "comment" are those of
 * the parser's own nodes: no section and no parameter can have them.
 *
 * Numbers are read as hexadecimal with "0x", else as decimal, else as bare hexadecimal: "0x1F" is 31, "010"
 * is 10, "ff" is 255, "-3" is -3. Text that begins with a number counts as that number. A number that does not
 * fit 32 bits is refused in every reading: "0x100000000" is not a number.
 *
 * Look-ups may run on any number of threads while the file is loaded; they allocate nothing.
 *
 * The look-ups take an id after the section. It only shows in the log: pass "".
 */
#ifndef ZOL_KIV_CONFIG_H
#define ZOL_KIV_CONFIG_H

#include <stddef.h>
#include <stdint.h>

#include "zol/kiv_export.h"

KIV_EXTERN_C_BEGIN

struct _xmlDoc; /* libxml2's document; include libxml/tree.h to look inside */

/**
 * Loads the configuration file; see zol_init(), which calls it. A loaded configuration is kept as it is.
 * @param configFile  Must stay valid until kiv_config_deinit().
 * @retval 1   Loaded, now or before.
 * @retval 0   The file exists but could not be loaded: no XML, nothing named "devices" in it, or no memory.
 * @retval -1  The file cannot be examined, or it does not exist and the chooser script names no other.
 */
KIV_API int32_t kiv_config_init(const char *configFile);

/** Releases the configuration and the parser's global memory: an application that uses libxml2 itself stops
 * doing so first. Called by zol_deinit(). @retval KIV_OK Always. */
KIV_API int32_t kiv_config_deinit(void);

/**
 * Gets a value as text.
 * @param[out] dst  Filled when found: cut to @p size - 1 characters, the rest of the buffer zeroed. Null just
 *                  asks whether the parameter exists.
 * @param size      Bytes at @p dst; with 0 nothing is stored.
 * @retval 1  Found.
 * @retval 0  Not found; @p dst is left as it was, so it can hold a default.
 */
KIV_API int32_t kiv_config_get_param(const char *section, const char *id, const char *param, char *dst,
                                     size_t size);

/**
 * Gets a value as a number, judged on its first 31 characters.
 * @param[out] out  Set when 1 is returned, else left as it was. Null just asks whether the parameter exists.
 * @retval 1  Found, and a number.
 * @retval 0  Not found, or not a number.
 */
KIV_API int32_t kiv_config_get_param_int(const char *section, const char *id, const char *param,
                                         int32_t *out);

/** Gives the length of a value in bytes; 0 when there is no such parameter. */
KIV_API size_t kiv_config_get_size(const char *section, const char *id, const char *param);

/** Scans a value with a scanf-style format.
 *  @return How many items were converted, -1 for an empty value, 0 when there is no such parameter. */
KIV_API int32_t kiv_config_sscanf(const char *section, const char *id, const char *param, const char *format,
                                  ...) KIV_SCANF_LIKE(4, 5);

/**
 * Reads a number by the rules above.
 * @param[out] out  Set on success.
 * @retval KIV_OK                 A number.
 * @retval KIV_ERR_INVALID_PARAM  @p str is null or no number, or @p out is null.
 */
KIV_API int32_t kiv_atoi(const char *str, int32_t *out);

/**
 * @name XML documents
 * For files of the application's own. A document belongs to the caller, who frees it with kiv_xml_delete();
 * different documents may be used on different threads. Errors in the XML are tolerated as far as the parser
 * can; the first is logged at ERRR. A document that lost parts because memory ran out is not returned.
 * @{
 */

/** Reads a document from a file. @return The document, or null; the log gives the reason. */
KIV_API struct _xmlDoc *kiv_xml_allocateFromFile(const char *path);

/** Reads a document from @p size bytes of memory, which the caller may free then. @return As above. */
KIV_API struct _xmlDoc *kiv_xml_allocate(const char *buffer, int size);

/** Frees a document; null is fine. @retval KIV_OK Always. */
KIV_API int32_t kiv_xml_delete(struct _xmlDoc *doc);

/**
 * Scans the text of the first element of a name, found depth-first from the root: its first child that is not
 * blank and has content. An element without text scans as "".
 * @param format  scanf-style. Bound every %s ("%63s").
 * @retval KIV_OK                 The element exists. Outputs that the scan did not reach keep their values.
 * @retval KIV_ERR_NOT_FOUND      There is no such element.
 * @retval KIV_ERR_INVALID_PARAM  A null argument, or a document without a root.
 */
KIV_API int32_t kiv_xml_scanElementContent(struct _xmlDoc *doc, const char *element, const char *format, ...)
    KIV_SCANF_LIKE(3, 4);

/** Scans an attribute of the first element of a name. An attribute that is missing scans as "".
 *  Results as kiv_xml_scanElementContent(). */
KIV_API int32_t kiv_xml_scanAttribute(struct _xmlDoc *doc, const char *element, const char *attribute,
                                      const char *format, ...) KIV_SCANF_LIKE(4, 5);
/** @} */

KIV_EXTERN_C_END

#endif
