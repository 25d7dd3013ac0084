#include "conf_file.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlerror.h>
#include <sys/stat.h>

#include <algorithm>

#include "common/owner.h"

namespace zol_tool
{
namespace
{

using xml_document = kiv::owner<xmlDoc, xmlFreeDoc>;

const char *text_of(const xmlChar *text) noexcept
{
    return reinterpret_cast<const char *>(text);
}

// The parser's handler takes a pointer to const since libxml2 2.12.
template <typename Error>
void note_first_error(void *context, Error *error)
{
    conf_file &file = *static_cast<conf_file *>(context);
    if (error->level > XML_ERR_WARNING && file.problem.empty()) {
        const std::string message = error->message != nullptr ? error->message : "unknown error";
        file.problem = message.substr(0, message.find('\n'));
        file.problem_line = error->line;
    }
}

bool is_element(const xmlNode *node) noexcept
{
    return node->type == XML_ELEMENT_NODE;
}

// The library looks at the names of these nodes, too.
bool has_name(const xmlNode *node) noexcept
{
    return is_element(node) || node->type == XML_PI_NODE || node->type == XML_ENTITY_REF_NODE;
}

// The children of an entity reference belong to the document's declarations.
const xmlNode *first_child(const xmlNode *node) noexcept
{
    return is_element(node) ? node->children : nullptr;
}

const xmlNode *next_above(const xmlNode *node) noexcept
{
    while (node != nullptr && node->next == nullptr) {
        node = node->parent;
    }
    return node != nullptr ? node->next : nullptr;
}

const xmlNode *next_in_document(const xmlNode *node) noexcept
{
    const xmlNode *const child = first_child(node);
    return child != nullptr ? child : next_above(node);
}

bool is_below(const xmlNode *node, const xmlNode *ancestor) noexcept
{
    while (node != nullptr && node != ancestor) {
        node = node->parent;
    }
    return node != nullptr;
}

bool is_named(const xmlNode *node, const char *name) noexcept
{
    return has_name(node) && xmlStrcmp(node->name, reinterpret_cast<const xmlChar *>(name)) == 0;
}

// The library's search: a node, the nodes below it, its later siblings and those below them.
const xmlNode *search(const xmlNode *start, const char *name) noexcept
{
    const xmlNode *node = start;
    while (node != nullptr && is_below(node, start->parent) && !is_named(node, name)) {
        node = next_in_document(node);
    }
    return node != nullptr && is_below(node, start->parent) ? node : nullptr;
}

bool holds_elements(const xmlNode *node) noexcept
{
    const xmlNode *child = node->children;
    while (child != nullptr && !is_element(child)) {
        child = child->next;
    }
    return child != nullptr;
}

std::optional<std::string> value_of(const xmlNode *element)
{
    if (element->children == nullptr) {
        return "";
    }
    const xmlChar *const content = element->children->content;
    return content != nullptr ? std::optional<std::string>(text_of(content)) : std::nullopt;
}

conf_element describe(const xmlNode *node)
{
    const xmlNode *const first = node->children;
    return {.name = text_of(node->name),
            .line = static_cast<int>(std::max(0L, xmlGetLineNo(node))),
            .value = value_of(node),
            .is_in_general = false,
            .is_group = holds_elements(node),
            .begins_with_comment = first != nullptr && first->type == XML_COMMENT_NODE,
            .is_real = is_element(node)};
}

void list_elements(conf_file &file, const xmlNode *root, const xmlNode *general)
{
    bool is_searched = false;
    for (const xmlNode *node = root; node != nullptr; node = next_in_document(node)) {
        is_searched =
            general != nullptr && (is_searched || node == general) && is_below(node, general->parent);
        if (has_name(node)) {
            conf_element &element = file.elements.emplace_back(describe(node));
            if (is_searched) {
                file.searched.emplace(element.name, file.elements.size() - 1);
            }
            element.is_in_general = general != nullptr && node != general && is_below(node, general);
        }
    }
}

} // namespace

const conf_element *conf_file::find(std::string_view name) const noexcept
{
    const auto found = searched.find(name);
    return found != searched.end() ? &elements[found->second] : nullptr;
}

conf_file read_conf_file(const std::string &path)
{
    conf_file file;
    file.path = path;
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) { // a pipe could be read only once
        return file;
    }
    xmlSetStructuredErrorFunc(&file, note_first_error);
    const xml_document document(
        xmlReadFile(path.c_str(), nullptr,
                    XML_PARSE_RECOVER | XML_PARSE_NOBLANKS | XML_PARSE_NONET | XML_PARSE_BIG_LINES));
    xmlSetStructuredErrorFunc(nullptr, nullptr);
    const xmlNode *const root = document != nullptr ? xmlDocGetRootElement(document.get()) : nullptr;
    const xmlNode *const devices = root != nullptr ? search(root, "devices") : nullptr;
    const xmlNode *const general = devices != nullptr ? search(devices, "general") : nullptr;
    file.has_devices = devices != nullptr;
    file.has_general = general != nullptr;
    list_elements(file, root, general);
    return file;
}

} // namespace zol_tool
