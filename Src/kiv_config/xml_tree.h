// The walk through a parsed tree and the report of parse errors, for the store and for the XML documents.
#pragma once

#include <libxml/tree.h>
#include <libxml/xmlerror.h>

#include "kiv_debug/log_as.h"

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

/// A tree as the parser made it has one copy of each name, which makes the search faster. An application may have
/// added elements to a document of its own.
enum class tree { as_parsed, changed };

/// Takes the parser's messages during one parse on this thread, which would else go to standard error. The
/// first error is logged, as the cause of those that follow; warnings are logged at INF1.
class parse_report
{
public:
    /// @param site  The public function that logs the messages.
    parse_report(const char *document_name, kiv::call_site site) noexcept;
    ~parse_report();
    parse_report(const parse_report &) = delete;
    parse_report &operator=(const parse_report &) = delete;

    /// Frees a document that lacks parts because memory ran out. @return The document, or null.
    [[nodiscard]] xmlDoc *complete(xmlDoc *doc) const noexcept;

private:
    // The parser's handler takes a pointer to const since libxml2 2.12.
    template <typename Error>
    static void note(void *report, Error *error) noexcept
    {
        static_cast<parse_report *>(report)->take(*error);
    }
    void take(const xmlError &error) noexcept;

    const char *document_name_;
    kiv::call_site site_;
    xmlStructuredErrorFunc former_handler_;
    void *former_context_;
    bool has_error_ = false;
    bool is_out_of_memory_ = false;
};

} // namespace kiv::xml

/// Searches depth-first for a node of a name: the node, its descendants, then its later siblings and theirs.
/// The id is never compared.
xmlNode *_kiv_config_getElement(xmlNode *node, const char *name, const char *id,
                                kiv::xml::tree kind = kiv::xml::tree::as_parsed) noexcept;
