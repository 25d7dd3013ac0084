#include "zol/kiv_config.h"

#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlmemory.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "common/text.h"
#include "support/fake_host.h"
#include "support/fault_sweep.h"
#include "support/log_capture.h"
#include "support/scratch.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"
#include "zol/kiv_test.h"

using zol_test::log_capture;

namespace
{

class Config : public testing::Test
{
protected:
    ~Config() override { kiv_config_deinit(); }

    // In place of the configuration before.
    int32_t load(const std::string &xml)
    {
        kiv_config_deinit();
        return kiv_config_init((file_ = scratch_.write("conf.xml", xml)).c_str());
    }

    int32_t load_general(const std::string &xml) { return load(zol_test::configuration(xml)); }

    static std::string text(const char *param, const char *section = "general")
    {
        char value[64] = "untouched";
        return kiv_config_get_param(section, "", param, value, sizeof value) == 1 ? value : "not found";
    }

    zol_test::scratch_directory scratch_;
    std::string file_;
};

TEST_F(Config, LooksUpDepthFirstAndBehindTheSection)
{
    ASSERT_EQ(
        load("<any><before><late>too early</late></before>"
             "<devices><outer><general><a>1st</a><nested><b>deep</b></nested><empty/><cdata><![CDATA[<raw>]]>"
             "</cdata><comment><!--note--></comment><element><a>x</a></element><a>2nd</a>"
             "<mixed>text<i>more</i></mixed></general><other><late>later section</late></other></outer>"
             "</devices><after><c>behind devices</c><no:prefix>undeclared</no:prefix></after></any>"),
        1);
    const struct {
        const char *section, *param, *value;
    } cases[] = {{"general", "a", "1st"},
                 {"general", "b", "deep"},
                 {"general", "empty", ""},
                 {"general", "cdata", "<raw>"},
                 {"general", "comment", "note"},
                 {"general", "element", "not found"},
                 {"general", "mixed", "text"},
                 {"general", "late", "later section"},
                 {"general", "A", "not found"},
                 {"general", "nowhere", "not found"},
                 {"after", "c", "behind devices"},
                 {"after", "no:prefix", "undeclared"},
                 {"before", "late", "not found"},
                 {"general", "general", "not found"},
                 {"devices", "a", "1st"},
                 {"general", "i", "more"},
                 {"after", "text", ""}};
    for (const auto &[section, param, value] : cases) {
        EXPECT_EQ(text(param, section), value) << section << "." << param;
    }
    EXPECT_EQ(kiv_config_get_param(nullptr, nullptr, nullptr, nullptr, 0), 0);
}

TEST_F(Config, CutsValuesToTheBufferAndMeasuresThem)
{
    for (const std::size_t length : {0U, 1U, 63U, 64U, 10'000U}) {
        const std::string value(length, 'v');
        ASSERT_EQ(load_general("<p>" + value + "</p>"), 1);
        std::string buffer(80, '#');
        ASSERT_EQ(kiv_config_get_param("general", "", "p", buffer.data(), 64), 1);
        std::string expected = value.substr(0, 63);
        expected.resize(64); // zeroed behind
        EXPECT_EQ(buffer, expected + std::string(16, '#'));
        EXPECT_EQ(kiv_config_get_size("general", "", "p"), length);
        EXPECT_EQ(kiv_config_get_param("general", "", "p", buffer.data(), 0), 1);
        EXPECT_EQ(kiv_config_init("/nowhere/at/all"), 1) << "the first file is kept";
    }
    char untouched[8] = "default";
    EXPECT_EQ(kiv_config_get_param("general", "", "q", untouched, sizeof untouched), 0);
    EXPECT_STREQ(untouched, "default");
    EXPECT_EQ(kiv_config_get_size("general", "", "q"), 0U);
}

TEST_F(Config, ReadsNumbersInThreeWays)
{
    constexpr int32_t none = 123456; // the output's former value
    const struct {
        const char *text;
        int32_t number;
    } cases[] = {{"0", 0},
                 {"0x", 0},
                 {"0xzz", 0},
                 {"0x1F", 31},
                 {"0X1F", 0},
                 {"010", 10},
                 {"ff", 255},
                 {" 7", 7},
                 {"-3", -3},
                 {"12abc", 12},
                 {"1f", 1},
                 {"", none},
                 {"0xffffffff", -1},
                 {"2147483647", INT32_MAX},
                 {"-", none},
                 {"xyz", none},
                 {"0x100000000", none},
                 {"2147483648", none},
                 {" ", none},
                 {"99999999999999999999", none}};
    for (const auto &[text, number] : cases) {
        ASSERT_EQ(load_general(std::string("<n>") + text + "</n>"), 1);
        log_capture log;
        const bool is_number = number != none;
        int32_t stored = none, converted = none;
        EXPECT_EQ(kiv_config_get_param_int("general", "", "n", &stored), is_number ? 1 : 0) << text;
        EXPECT_EQ(kiv_atoi(text, &converted), is_number ? KIV_OK : KIV_ERR_INVALID_PARAM) << text;
        EXPECT_TRUE(stored == number && converted == number && stoi(text) == (is_number ? number : 0))
            << text;
        const bool is_blank = std::string_view(text).find_first_not_of(' ') == std::string_view::npos;
        EXPECT_EQ(log.texts("ERRR").empty(), is_number || is_blank) << text;
    }
    int32_t value = none;
    unsigned second = 0;
    ASSERT_EQ(load_general("<n>x</n><hw>12 0x3</hw><empty/><z>" + std::string(31, '0') + "7</z>"), 1);
    EXPECT_EQ(kiv_config_get_param_int("general", "", "n", nullptr), 1) << "only asks whether it exists";
    EXPECT_EQ(kiv_config_get_param_int("general", "", "m", &value), 0);
    EXPECT_EQ(kiv_atoi(nullptr, &value), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(value, none);
    EXPECT_EQ(kiv_config_get_param_int("general", "", "z", &value), 1);
    EXPECT_EQ(value, 0) << "31 characters count";
    EXPECT_EQ(kiv_config_sscanf("general", "", "hw", "%d 0x%x", &value, &second), 2);
    EXPECT_TRUE(value == 12 && second == 3U);
    EXPECT_EQ(kiv_config_sscanf("general", "", "empty", "%d", &value), -1);
    EXPECT_EQ(kiv_config_sscanf("general", "", "missing", "%d", &value), 0);
    EXPECT_EQ(kiv_config_sscanf("general", "", "hw", nullptr), 0);
}

TEST_F(Config, TellsErrorsFromWarnings)
{
    g_debugLevel = 3;
    log_capture log;
    EXPECT_EQ(load("<r xmlns='relative'><devices/></r>"), 1);
    EXPECT_TRUE(log.texts("ERRR").empty());
    EXPECT_TRUE(log.texts("INF1").at(0).starts_with("XML warning in " + file_)) << log.out();
    EXPECT_EQ(load("<r xmlns='relative'><devices/></s>&more;"), 1);
    EXPECT_NE(log.texts("ERRR").at(0).find("Opening and ending tag mismatch"), std::string::npos);
    EXPECT_EQ(log.texts("ERRR").size(), 1U) << "the first is the cause of the others";
    kiv_config_deinit();
    EXPECT_EQ(kiv_config_init(nullptr), -1);
    int own_errors = 0;
    xmlSetStructuredErrorFunc(&own_errors, [](void *count, auto *) { ++*static_cast<int *>(count); });
    EXPECT_EQ(load("<no end"), 0);
    EXPECT_EQ(own_errors, 0);
    xmlFreeDoc(xmlReadMemory("<no end", 7, nullptr, nullptr, 0));
    EXPECT_GT(own_errors, 0) << "the application's handler is back";
    xmlSetStructuredErrorFunc(nullptr, nullptr);
}

TEST_F(Config, RunsTheChooserWhenTheFileIsMissing)
{
    const std::string missing = scratch_.path() / "missing.xml";
    const std::string good = scratch_.write("good.xml", zol_test::configuration("<p>chosen</p>"));
    const std::string nameless =
        "no configuration: " + missing + " does not exist and /usr/bin/zol_choose_conf.sh names no other";
    const struct {
        std::string script;
        int32_t result;
        std::string error;
    } cases[] = {
        {"echo; echo '  " + good + " and more'", 1, ""},
        {"echo " + good + "; while :; do echo more; done", 1, ""}, // ends when nobody reads on
        {"exit 0", -1, nameless},
        {"echo /nowhere/else.xml", 0, "can't open file /nowhere/else.xml"},
        {"printf 'x%.0s' $(seq 1000)", 0, "can't open file " + std::string(255, 'x')},
    };
    g_debugLevel = 2;
    for (const auto &[script, result, error] : cases) {
        zol_test::fake_host host;
        host.set_command(script);
        log_capture log;
        EXPECT_EQ(kiv_config_init(missing.c_str()), result) << script;
        EXPECT_EQ(log.has("ERRR", error), result < 1) << script;
        EXPECT_EQ(text("p"), result == 1 ? "chosen" : "not found");
        EXPECT_EQ(log.has("PRNT", "reading file " + good), result == 1);
        EXPECT_EQ(kiv_config_init(good.c_str()), 1);
        EXPECT_EQ(text("p"), result != 0 ? "chosen" : "not found")
            << "a file that does not load ends the search";
        kiv_config_deinit();
    }
}

TEST_F(Config, ReportsEveryFailedCall)
{
    const std::string file = scratch_.write("conf.xml", zol_test::configuration("<p>7</p>"));
    zol_test::fake_host host;
    host.set_command("echo " + file);
    xmlFreeFunc former_free = nullptr;
    xmlMallocFunc former_malloc = nullptr;
    xmlReallocFunc former_realloc = nullptr;
    xmlStrdupFunc former_strdup = nullptr;
    xmlMemGet(&former_free, &former_malloc, &former_realloc, &former_strdup);
    xmlMemSetup(std::free, std::malloc, std::realloc, strdup); // this malloc() is the wrapper, which fails
    const auto failures = [](const std::string &path) {
        return zol_test::handled_failures([&path] {
            log_capture log;
            const int32_t loaded = kiv_config_init(path.c_str());
            int32_t value = 0;
            kiv_config_get_param_int("general", "", "p", &value);
            kiv_config_deinit();
            const bool reported = loaded < 1 && !log.texts("ERRR").empty();
            return reported || (loaded == 1 && value == 7);
        });
    };
    const int named = failures(file);
    EXPECT_GE(named, 20) << "stat, the parser, and what it allocates";
    EXPECT_EQ(failures(scratch_.path() / "missing.xml"), named + 1) << "the script";
    xmlMemSetup(former_free, former_malloc, former_realloc, former_strdup);
}

TEST(Xml, ScansTheFirstTextOfAnElementAndItsAttributes)
{
    const std::string xml = "<root>\n  <a>\n  <i/>first<i/>second</a><b>  </b><c><!--12--></c>"
                            "<p x='1' empty='' y='-20'/><p x='9'/></root>";
    const struct {
        const char *element, *attribute;
        int32_t status;
        int value; // 77: unchanged
    } cases[] = {{"c", nullptr, KIV_OK, 12},
                 {"b", nullptr, KIV_OK, 77},
                 {"p", "x", KIV_OK, 1},
                 {"p", "y", KIV_OK, -20},
                 {"p", "z", KIV_OK, 77},
                 {"z", nullptr, KIV_ERR_NOT_FOUND, 77},
                 {"p", "empty", KIV_OK, 77},
                 {"added", nullptr, KIV_OK, 31},
                 {"q", "x", KIV_ERR_NOT_FOUND, 77},
                 {nullptr, "x", KIV_ERR_INVALID_PARAM, 77}};
    g_debugLevel = 3;
    log_capture log;
    _xmlDoc *const doc = kiv_xml_allocate(xml.data(), static_cast<int>(xml.size()));
    xmlNode *const added = xmlNewNode(nullptr, BAD_CAST "added");
    xmlNodeSetContent(added, BAD_CAST "31");
    xmlAddChild(xmlDocGetRootElement(doc), added);
    for (const auto &[element, attribute, status, expected] : cases) {
        int value = 77;
        const int32_t scanned = attribute != nullptr
                                    ? kiv_xml_scanAttribute(doc, element, attribute, "%d", &value)
                                    : kiv_xml_scanElementContent(doc, element, "%d", &value);
        EXPECT_TRUE(scanned == status && value == expected) << kiv::shown(element) << scanned << value;
    }
    char text[64] = "";
    EXPECT_EQ(kiv_xml_scanElementContent(doc, "a", "%63s", text), KIV_OK);
    EXPECT_STREQ(text, "first");
    EXPECT_TRUE(log.has("INF1", "element (a) content(?!?)"));
    EXPECT_TRUE(log.has("PRNT", " element text=first"));
    EXPECT_TRUE(log.has("PRNT", " found attribute p.empty = \"\""));
    EXPECT_EQ(kiv_xml_delete(doc), KIV_OK);
}

TEST(Xml, ReportsTheReasonForANullDocument)
{
    log_capture log;
    EXPECT_EQ(kiv_xml_allocate(nullptr, 10), nullptr);
    EXPECT_EQ(kiv_xml_allocate("<a/>", -1), nullptr);
    EXPECT_EQ(kiv_xml_allocateFromFile(nullptr), nullptr);
    EXPECT_EQ(kiv_xml_allocateFromFile("/nowhere"), nullptr);
    EXPECT_EQ(log.texts("ERRR").size(), 8U) << "four assertions, each with a reason";
    _xmlDoc *const rootless = kiv_xml_allocate("<!-- -->", 8);
    EXPECT_EQ(kiv_xml_scanElementContent(rootless, "a", " "), KIV_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.has("ERRR", "no element a: no root element"));
    _xmlDoc *const good = kiv_xml_allocate("<a b='1'/>", 10);
    int value = 77;
    EXPECT_EQ(kiv_xml_scanElementContent(good, "a", nullptr), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(kiv_xml_scanAttribute(good, "a", "b", nullptr), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(kiv_xml_scanAttribute(good, "a", nullptr, "%d", &value), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(kiv_xml_scanAttribute(nullptr, "a", "b", "%d", &value), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(value, 77);
    kiv_xml_delete(good);
    kiv_xml_delete(rootless);
    kiv_xml_delete(nullptr);
}

} // namespace
