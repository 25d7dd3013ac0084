#include "zol/kiv_test.h"

#include <gtest/gtest.h>

#include <string>

#include "support/fault_sweep.h"
#include "support/log_capture.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"

using zol_test::log_capture;

namespace
{

int g_handled;
unsigned g_flags;

int handle(int argc, char **, unsigned testFlags)
{
    g_handled += argc;
    g_flags = testFlags;
    return 0;
}

TEST(TestRegistry, FindsTheLatestRecordOfAName)
{
    const kiv_test_item items[] = {{"alpha", "first", "-a\n", nullptr, 0},
                                   {"beta", "second", "", handle, 0},
                                   {"alpha", "third", "-b\n", handle, 0},
                                   {nullptr, nullptr, nullptr, nullptr, 0}};
    for (const kiv_test_item &item : items) {
        ASSERT_EQ(kiv_test_util_register(&item), KIV_OK);
    }
    EXPECT_EQ(kiv_test_util_match("alpha", 3, nullptr, 2), 1);
    EXPECT_TRUE(g_handled == 3 && g_flags == 2) << "by the third, which stands before the first";
    EXPECT_EQ(kiv_test_util_match("Alpha", 3, nullptr, 0), 0);
    EXPECT_EQ(kiv_test_util_match(nullptr, 3, nullptr, 0), 1) << "a null name is an empty one";
    EXPECT_EQ(g_handled, 3);
    log_capture log;
    kiv_test_util_print_modules("");
    kiv_test_util_print_modules("alpha");
    EXPECT_EQ(log.out(),
              "                        - \n           alpha        - third\n"
              "           beta         - second\n           alpha        - first\n"
              "  Test         : \033[32m\"alpha\"\033[0m\n  Description  : third\n  Parameters   : \n-b\n\n"
              "  Test         : \033[32m\"alpha\"\033[0m\n  Description  : first\n  Parameters   : \n-a\n\n");
    kiv_test_util_deinit();
    EXPECT_EQ(kiv_test_util_match("alpha", 1, nullptr, 0), 0);
    EXPECT_EQ(kiv_test_util_print_modules("alpha"), 0);
    EXPECT_TRUE(log.has("ERRR", "Can't findtest (alpha)"));
}

TEST(TestRegistry, IsUnchangedWhenMemoryIsExhausted)
{
    const kiv_test_item item = {"gamma", "", "", nullptr, 0};
    const zol_test::sweep_result result = zol_test::sweep_faults([&item]() -> std::string {
        const bool failed = kiv_test_util_register(&item) == KIV_ERR_SYSTEM;
        const bool found = kiv_test_util_match("gamma", 0, nullptr, 0) == 1;
        kiv_test_util_deinit();
        return failed != found && failed == !zol_test::failed_call().empty() ? "" : "half registered";
    });
    EXPECT_EQ(result.complaints, "");
    EXPECT_EQ(result.failures, 1);
    log_capture log;
    EXPECT_EQ(kiv_test_util_register(nullptr), KIV_ERR_INVALID_PARAM);
}

TEST(TestRegistry, NumbersOfTheCommandLine)
{
    const struct {
        const char *text;
        int number;
        bool reported;
    } cases[] = {{"0x1F", 31, false}, {"ff", 255, false}, {"12", 12, false},        {"-5", -5, false},
                 {"1f", 1, false},    {"0X1F", 0, false}, {"", 0, false},           {"0", 0, false},
                 {"0x", 0, false},    {"zz", 0, true},    {"99999999999", 0, true}, {"0xzz", 0, false},
                 {" ", 0, false},     {"-", 0, true},     {"0xffffffff", -1, false}};
    for (const auto &[text, number, reported] : cases) {
        log_capture log;
        EXPECT_EQ(stoi(text), number) << text;
        EXPECT_EQ(log.has("ERRR", std::string("can't convert [") + text + "] to int"), reported) << text;
    }
    EXPECT_EQ(stoi(nullptr), 0);
}

} // namespace
