// The registry of test modules, and the numbers of their command lines.

#include <glib.h>

#include <cstdio>
#include <cstring>
#include <new>

#include "common/number.h"
#include "common/text.h"
#include "kiv_debug/log_as.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"
#include "zol/kiv_test.h"

using kiv::or_empty;

namespace
{

// A registered record and its place in the list, in one allocation that may fail: GLib's own list nodes end
// the process when memory is exhausted.
struct module_node {
    GList link; // link.data points at item
    kiv_test_item item;
};

// The registered modules, the newest first. Used from the tool's main thread only.
GList *p_module_list;

const kiv_test_item &item_of(const GList *link)
{
    return *static_cast<const kiv_test_item *>(link->data);
}

bool is_named(const kiv_test_item &item, const char *name)
{
    return std::strcmp(or_empty(item.name), or_empty(name)) == 0;
}

void print_list()
{
    for (const GList *link = p_module_list; link != nullptr; link = link->next) {
        std::printf("           %-10s   - %s\n", or_empty(item_of(link).name),
                    or_empty(item_of(link).description));
    }
}

void print_details(const kiv_test_item &item)
{
    std::printf("  Test         : \033[32m\"%s\"\033[0m\n", or_empty(item.name));
    std::printf("  Description  : %s\n", or_empty(item.description));
    std::printf("  Parameters   : \n%s\n", or_empty(item.parameters));
}

// Records that are hidden by a newer one of their name are shown too.
bool print_all_named(const char *name)
{
    bool found = false;
    for (const GList *link = p_module_list; link != nullptr; link = link->next) {
        if (is_named(item_of(link), name)) {
            print_details(item_of(link));
            found = true;
        }
    }
    return found;
}

} // namespace

int kiv_test_util_register(const kiv_test_item *item)
{
    if (!KIV_GIVEN(item != nullptr, "no test module to register")) {
        return KIV_ERR_INVALID_PARAM;
    }
    auto *const node = new (std::nothrow) module_node{{}, *item};
    if (node == nullptr) {
        return KIV_ERR_SYSTEM;
    }
    node->link.data = &node->item;
    p_module_list = g_list_concat(&node->link, p_module_list);
    return KIV_OK;
}

// The list begins with the newest record, so a module can be replaced by registering its name again.
int kiv_test_util_match(const char *name, int argc, char **argv, unsigned testFlags)
{
    for (const GList *link = p_module_list; link != nullptr; link = link->next) {
        if (is_named(item_of(link), name)) {
            if (const kiv_test_handler handler = item_of(link).handler; handler != nullptr) {
                handler(argc, argv, testFlags);
            }
            return 1;
        }
    }
    return 0;
}

int kiv_test_util_print_modules(const char *name)
{
    if (or_empty(name)[0] == '\0') {
        print_list();
    } else if (!print_all_named(name)) {
        KIV_LOG_ERRR("Can't findtest (%s)\n", name);
    }
    return 0;
}

void kiv_test_util_deinit(void)
{
    KIV_LOG_PRNT("cleaning kiv_test_util\n");
    while (p_module_list != nullptr) {
        auto *const node = reinterpret_cast<module_node *>(p_module_list); // the link is its first member
        p_module_list = g_list_remove_link(p_module_list, p_module_list);
        delete node;
    }
}

int stoi(const char *str)
{
    int32_t value = 0;
    if (!kiv::parse_argument_number(or_empty(str), value)) {
        KIV_LOG_ERRR("can't convert [%s] to int\n", str);
    }
    return value;
}
