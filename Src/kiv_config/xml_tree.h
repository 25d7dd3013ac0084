// What the configuration store and the XML documents share: walking a parsed tree and reporting parse errors.
#pragma once

#include <libxml/tree.h>
#include <libxml/xmlerror.h>

namespace kiv::xml
{

inline const char *text_of(const xmlChar *text) noexcept
{
    return reinterpret_cast<const char *>(text);
}

inline const xmlChar *to_xml(const char *text) noexcept
{
    return reinterpret_cast<const xmlChar *>(text);
}

/// Takes what the parser has to say during one parse on this thread, which would else go to standard error
/// line by line, and logs the first of it: the cause, where the others are its consequences.
class parse_report
{
public:
    explicit parse_report(const char *document_name) noexcept;
    ~parse_report();
    parse_report(const parse_report &) = delete;
    parse_report &operator=(const parse_report &) = delete;

private:
    static void note(void *report, xmlError *error) noexcept;

    const char *document_name_;
    xmlStructuredErrorFunc former_handler_;
    void *former_context_;
    bool noted_ = false;
};

} // namespace kiv::xml

/// Searches depth-first for a node of a name: the node, its descendants, then its later siblings and theirs.
/// The id is carried for the callers' sake and never compared.
xmlNode *_kiv_config_getElement(xmlNode *node, const char *name, const char *id) noexcept;
