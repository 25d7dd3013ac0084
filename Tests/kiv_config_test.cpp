#include "zol/kiv_config.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "support/fake_chooser.h"
#include "support/fault_sweep.h"
#include "support/log_capture.h"
#include "support/scratch.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"

using zol_test::log_capture;

namespace
{

class Config : public testing::Test
{
protected:
    ~Config() override { kiv_config_deinit(); }

    int32_t load(const std::string &xml)
    {
        return kiv_config_init((file_ = scratch_.write("conf.xml", xml)).c_str());
    }

    static std::string text(const char *param, const char *section = "general")
    {
        char value[64] = "untouched";
        return kiv_config_get_param(section, "", param, value, sizeof value) == 1 ? value : "not found";
    }

    zol_test::scratch_directory scratch_;
    std::string file_;
};

TEST_F(Config, LookUpsWalkTheDocument)
{
    ASSERT_EQ(
        load("<any><before><late>too early</late></before>"
             "<devices><outer><general><a>1st</a><nested><b>deep</b></nested><empty/><cdata><![CDATA[<raw>]]>"
             "</cdata><comment><!--note--></comment><element><a>x</a></element><a>2nd</a>"
             "<mixed>text<i>more</i></mixed></general><other><late>later section</late></other></outer>"
             "</devices><after><c>behind devices</c></after></any>"),
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
                 {"before", "late", "not found"},
                 {"general", "general", "not found"},
                 {"devices", "a", "1st"}};
    for (const auto &[section, param, value] : cases) {
        EXPECT_EQ(text(param, section), value) << section << "." << param;
    }
    EXPECT_EQ(kiv_config_get_param(nullptr, nullptr, nullptr, nullptr, 0), 0);
}

TEST_F(Config, ValuesAreCutToTheBufferAndMeasured)
{
    for (const std::size_t length : {0U, 1U, 63U, 64U, 10'000U}) {
        const std::string value(length, 'v');
        ASSERT_EQ(load(zol_test::configuration("<p>" + value + "</p>")), 1);
        std::string buffer(80, '#');
        ASSERT_EQ(kiv_config_get_param("general", "", "p", buffer.data(), 64), 1);
        std::string expected = value.substr(0, 63);
        expected.resize(64); // zeroed behind
        EXPECT_EQ(buffer, expected + std::string(16, '#'));
        EXPECT_EQ(kiv_config_get_size("general", "", "p"), length);
        EXPECT_EQ(kiv_config_get_param("general", "", "p", buffer.data(), 0), 1)
            << "no room: nothing is stored";
        kiv_config_deinit();
    }
    char untouched[8] = "default";
    ASSERT_EQ(load(zol_test::configuration("<p/>")), 1);
    EXPECT_EQ(kiv_config_get_param("general", "", "q", untouched, sizeof untouched), 0);
    EXPECT_STREQ(untouched, "default");
    EXPECT_EQ(kiv_config_get_size("general", "", "q"), 0U);
}

TEST_F(Config, NumbersAreReadInThreeWays)
{
    constexpr int32_t none = 123456; // what the output held before
    // A number that does not fit behind 0x leaves the 0 before the x; and 31 characters are looked at.
    const std::pair<std::string, int32_t> cases[] = {{"0", 0},
                                                     {"0x", 0},
                                                     {"0x1F", 31},
                                                     {"0X1F", 0},
                                                     {"010", 10},
                                                     {"ff", 255},
                                                     {" 7", 7},
                                                     {"-3", -3},
                                                     {"+4", 4},
                                                     {"12abc", 12},
                                                     {"0xffffffff", -1},
                                                     {"2147483647", 2147483647},
                                                     {"", none},
                                                     {"xyz", none},
                                                     {"2147483648", none},
                                                     {"99999999999999999999", none},
                                                     {"0x100000000", 0},
                                                     {std::string(31, '0') + "7", 0}};
    for (const auto &[text, number] : cases) {
        ASSERT_EQ(load(zol_test::configuration("<n>" + text + "</n>")), 1);
        int32_t value = none;
        EXPECT_EQ(kiv_config_get_param_int("general", "", "n", &value), number == none ? 0 : 1) << text;
        EXPECT_EQ(value, number) << text;
        value = none;
        EXPECT_EQ(kiv_atoi(text.c_str(), &value), number == none ? KIV_ERR_INVALID_PARAM : KIV_OK) << text;
        kiv_config_deinit();
    }
    int32_t value = none;
    ASSERT_EQ(load(zol_test::configuration("<n>no number</n><hw>12 0x3</hw><empty/>")), 1);
    EXPECT_EQ(kiv_config_get_param_int("general", "", "n", nullptr), 1) << "without output: does it exist?";
    EXPECT_EQ(kiv_config_get_param_int("general", "", "m", &value), 0);
    EXPECT_EQ(value, none);
    EXPECT_EQ(kiv_atoi(nullptr, &value), KIV_ERR_INVALID_PARAM);
    unsigned second = 0;
    EXPECT_EQ(kiv_config_sscanf("general", "", "hw", "%d 0x%x", &value, &second), 2);
    EXPECT_EQ(value, 12);
    EXPECT_EQ(second, 3U);
    EXPECT_EQ(kiv_config_sscanf("general", "", "empty", "%d", &value), -1);
    EXPECT_EQ(kiv_config_sscanf("general", "", "missing", "%d", &value), 0);
}

TEST_F(Config, ASecondInitKeepsTheFirstFile)
{
    ASSERT_EQ(load(zol_test::configuration("<p>first</p>")), 1);
    EXPECT_EQ(kiv_config_init("/nowhere/at/all"), 1);
    EXPECT_EQ(text("p"), "first");
    EXPECT_EQ(kiv_config_deinit() + kiv_config_deinit(), KIV_OK) << "once more does no harm";
    EXPECT_EQ(text("p"), "not found");
}

TEST_F(Config, FilesThatCannotBeLoadedAreReportedOnce)
{
    std::string deep;
    for (int i = 0; i < 10'000; ++i) {
        deep += "<d>";
    }
    std::string bomb = "<!DOCTYPE r [<!ENTITY e0 \"boom\">";
    for (int i = 1; i <= 30; ++i) {
        const std::string before = "&e" + std::to_string(i - 1) + ";";
        bomb += "<!ENTITY e" + std::to_string(i) + " \"" + before + before + before + before + "\">";
    }
    const std::string files[] = {
        "",   "not xml at all",       "<open><but><never>", "<devicez/>", "\xff\xfe\x00\x01",
        deep, bomb + "]><r>&e30;</r>"};
    for (const std::string &xml : files) {
        log_capture log;
        EXPECT_EQ(load(xml), 0) << xml.substr(0, 40);
        EXPECT_TRUE(log.has("ERRR", "can't open file " + file_));
        EXPECT_LE(log.texts("ERRR").size(), 4U) << "the parser's reason, the file, two assertions";
        EXPECT_EQ(text("p"), "not found");
        kiv_config_deinit();
    }
    log_capture log;
    EXPECT_EQ(kiv_config_init(scratch_.path().c_str()), 0) << "a directory";
    EXPECT_TRUE(log.has("ERRR", "XML error in " + scratch_.path().string() + ", line 0: Is a directory"));
    kiv_config_deinit();
    EXPECT_EQ(kiv_config_init((file_ + "/below/a/file").c_str()), -1);
    EXPECT_EQ(kiv_config_init(nullptr), -1);
}

TEST_F(Config, DamageIsToleratedAndEntitiesAreNotWalkedInto)
{
    log_capture log;
    std::string large;
    while (large.size() < 20'000'000) {
        large += "<padding>" + std::string(1'000'000, '.') + "</padding>";
    }
    ASSERT_EQ(load("<!DOCTYPE r [<!ENTITY inner \"<hidden>yes</hidden>\">]><r><devices>" + large +
                   "<general>&inner;<p>kept</p><q>cut in the mid"),
              1);
    EXPECT_EQ(text("p"), "kept");
    EXPECT_EQ(text("q"), "cut in the mid");
    EXPECT_EQ(text("hidden"), "not found");
    EXPECT_EQ(log.texts("ERRR").size(), 1U) << "one line names the damage";
}

TEST_F(Config, TheChooserNamesTheFileWhereItIsMissing)
{
    const std::string missing = scratch_.path() / "missing.xml";
    const std::string good = scratch_.write("good.xml", zol_test::configuration("<p>chosen</p>"));
    const std::string nameless =
        "no configuration: " + missing + " does not exist and /usr/bin/zol_choose_conf.sh names no other";
    const std::string cut = std::string(255, 'x');
    const struct {
        std::string script;
        int32_t result;
        std::string error;
    } cases[] = {
        {"echo; echo '  " + good + " and more'", 1, ""},
        {"echo " + good + "; while :; do echo more; done", 1, ""}, // ends when nobody reads on
        {"exit 0", -1, nameless},
        {"/nowhere/no_such_script 2>/dev/null", -1, nameless},
        {"echo /nowhere/else.xml", 0, "can't open file /nowhere/else.xml"},
        {"printf 'x%.0s' $(seq 1000)", 0, "can't open file " + cut},
    };
    for (const auto &[script, result, error] : cases) {
        const zol_test::fake_chooser chooser(script);
        g_debugLevel = 2;
        log_capture log;
        EXPECT_EQ(kiv_config_init(missing.c_str()), result) << script;
        EXPECT_EQ(log.has("ERRR", error), result < 1) << script;
        EXPECT_EQ(text("p"), result == 1 ? "chosen" : "not found");
        EXPECT_EQ(log.has("PRNT", "reading file " + good), result == 1);
        kiv_config_deinit();
    }
}

TEST_F(Config, EveryFailureOnTheWayIsReported)
{
    const std::string file = scratch_.write("conf.xml", zol_test::configuration("<p>7</p>"));
    const zol_test::fake_chooser chooser("echo " + file);
    const auto sweep = [](const std::string &path) {
        return zol_test::sweep_faults([&path]() -> std::string {
            log_capture log;
            const int32_t loaded = kiv_config_init(path.c_str());
            int32_t value = 0;
            kiv_config_get_param_int("general", "", "p", &value);
            kiv_config_deinit();
            const bool failed = !zol_test::failed_call().empty();
            const bool reported = loaded < 1 && !log.texts("ERRR").empty();
            return failed == reported && (failed || value == 7) ? "" : "unreported";
        });
    };
    const zol_test::sweep_result named = sweep(file);
    EXPECT_EQ(named.complaints, "");
    EXPECT_EQ(named.failures, 2) << "stat and the parser";
    const zol_test::sweep_result chosen = sweep(scratch_.path() / "missing.xml");
    EXPECT_EQ(chosen.complaints, "");
    EXPECT_EQ(chosen.failures, 3) << "stat, the script and the parser";
}

_xmlDoc *parse(const std::string &xml)
{
    return kiv_xml_allocate(xml.data(), static_cast<int>(xml.size()));
}

TEST(Xml, ContentOfTheFirstChildWithText)
{
    _xmlDoc *const doc =
        parse("<root>\n  <a>\n  <i/>first<i/>second</a><b>  </b><c><!--12--></c><n>42 rest</n></root>");
    ASSERT_NE(doc, nullptr);
    g_debugLevel = 3;
    log_capture log;
    char value[64] = "";
    EXPECT_EQ(kiv_xml_scanElementContent(doc, "a", "%63s", value), KIV_OK);
    EXPECT_STREQ(value, "first");
    EXPECT_TRUE(log.has("INF1", "element (a) content(?!?)"));
    EXPECT_TRUE(log.has("PRNT", " element text=first"));
    int number = -1;
    EXPECT_EQ(kiv_xml_scanElementContent(doc, "c", "%d", &number), KIV_OK);
    EXPECT_EQ(number, 12) << "any kind of node will do";
    EXPECT_EQ(kiv_xml_scanElementContent(doc, "n", "%d", &number), KIV_OK);
    EXPECT_EQ(number, 42);
    EXPECT_EQ(kiv_xml_scanElementContent(doc, "b", "%d", &number), KIV_OK);
    EXPECT_EQ(number, 42) << "blank text scans as nothing";
    EXPECT_EQ(kiv_xml_scanElementContent(doc, "z", "%d", &number), KIV_ERR_NOT_FOUND);
    EXPECT_EQ(kiv_xml_delete(doc), KIV_OK);
}

TEST(Xml, Attributes)
{
    _xmlDoc *const doc = parse("<root><p x='1' empty='' y='-20'/><p x='9'/></root>");
    g_debugLevel = 2;
    log_capture log;
    int value = 77;
    EXPECT_EQ(kiv_xml_scanAttribute(doc, "p", "z", "%d", &value), KIV_OK);
    EXPECT_EQ(kiv_xml_scanAttribute(doc, "p", "empty", "%d", &value), KIV_OK);
    EXPECT_EQ(value, 77);
    EXPECT_EQ(kiv_xml_scanAttribute(doc, "p", "y", "%d", &value), KIV_OK);
    EXPECT_EQ(value, -20);
    EXPECT_EQ(log.texts("PRNT"), (std::vector<std::string>{" found attribute p.empty = \"\"",
                                                           " found attribute p.y = \"-20\""}));
    EXPECT_EQ(kiv_xml_scanAttribute(doc, "q", "x", "%d", &value), KIV_ERR_NOT_FOUND);
    EXPECT_EQ(kiv_xml_scanAttribute(nullptr, "p", "x", "%d", &value), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(kiv_xml_scanAttribute(doc, nullptr, "x", "%d", &value), KIV_ERR_INVALID_PARAM);
    kiv_xml_delete(doc);
}

TEST(Xml, WhatIsNoDocument)
{
    log_capture log;
    EXPECT_EQ(kiv_xml_allocate(nullptr, 10), nullptr);
    EXPECT_EQ(kiv_xml_allocate("<a/>", -1), nullptr);
    EXPECT_EQ(kiv_xml_allocateFromFile(nullptr), nullptr);
    EXPECT_EQ(kiv_xml_allocateFromFile("/nowhere"), nullptr);
    EXPECT_EQ(log.texts("ERRR").size(), 5U) << "four assertions, and the reason where the parser had one";
    EXPECT_EQ(kiv_xml_delete(nullptr), KIV_OK);
    _xmlDoc *const rootless = parse("<!-- nothing -->");
    int value = 0;
    EXPECT_EQ(kiv_xml_scanElementContent(rootless, "a", "%d", &value), KIV_ERR_INVALID_PARAM);
    kiv_xml_delete(rootless);
}

} // namespace
