#include "zol/kiv_token.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>

#include "support/fault_sweep.h"
#include "support/log_capture.h"
#include "support/scratch.h"
#include "zol/kiv_config.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"

using zol_test::log_capture;

namespace
{

class Tokens : public testing::Test
{
protected:
    Tokens()
    {
        scratch_.write("CAL", "0123456789");
        scratch_.write("EMPTY", "");
        std::filesystem::create_directory(scratch_.path() / "DIR");
        scratch_.write("DIR/IN", "nested");
        std::strncpy(g_tokensPath, scratch_.path().c_str(), sizeof g_tokensPath - 1);
    }
    ~Tokens() override { kiv_token_deinit(); }

    zol_test::scratch_directory scratch_;
};

TEST_F(Tokens, ReadsTokensUpToTheCallersSize)
{
    const struct {
        const char *name;
        uint32_t size, room;
        const char *read;
    } cases[] = {{"CAL", 10, 4, "0123###########"},
                 {"CAL", 10, 15, "0123456789#####"},
                 {"EMPTY", 0, 15, "###############"},
                 {"DIR/IN", 6, 6, "nested#########"}};
    for (const auto &[name, size, room, read] : cases) {
        char buffer[] = "###############";
        uint32_t got = 99;
        EXPECT_TRUE(kiv_token_isExist(name) == KIV_OK && kiv_token_getSize(name, nullptr) == KIV_OK);
        EXPECT_TRUE(kiv_token_getSize(name, &got) == KIV_OK && got == size) << name << got;
        EXPECT_EQ(kiv_token_getData(name, buffer, room, nullptr), KIV_OK);
        EXPECT_EQ(kiv_token_getData(name, buffer, room, &got), KIV_OK);
        EXPECT_EQ(got, std::min(size, room));
        EXPECT_STREQ(buffer, read);
    }
}

TEST_F(Tokens, NeedsABufferForBytesOnly)
{
    log_capture log;
    uint32_t got = 99;
    EXPECT_EQ(kiv_token_getData("CAL", nullptr, 4, &got), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(got, 99U);
    EXPECT_TRUE(log.has("ERRR", "no buffer for the 4 bytes of token CAL"));
    EXPECT_TRUE(kiv_token_getData("CAL", nullptr, 0, &got) == KIV_OK && got == 0);
}

TEST_F(Tokens, RefusesMissingTokensAndFilesWithoutBytes)
{
    ASSERT_EQ(mkfifo((scratch_.path() / "FIFO").c_str(), 0600), 0);
    const std::string too_long(64, 'n');
    for (const char *name :
         {"NONE", "", "DIR", "DIR/", "FIFO", too_long.c_str(), static_cast<const char *>(nullptr)}) {
        log_capture log;
        char buffer[4];
        uint32_t size = 99;
        EXPECT_EQ(kiv_token_isExist(name), KIV_ERR_OPEN);
        EXPECT_EQ(kiv_token_getSize(name, &size), KIV_ERR_OPEN);
        EXPECT_EQ(kiv_token_getData(name, buffer, sizeof buffer, &size), KIV_ERR_OPEN);
        EXPECT_EQ(size, 99U);
        const bool bad_name = name == nullptr || name == too_long;
        EXPECT_EQ(log.texts("ERRR").empty(), !bad_name) << "asking for a token that is missing is no error";
    }
    log_capture log;
    scratch_.write("HUGE", "");
    std::filesystem::resize_file(scratch_.path() / "HUGE", 1ULL << 32U); // without blocks
    uint32_t size = 99;
    EXPECT_EQ(kiv_token_getSize("HUGE", &size), KIV_ERR_SYSTEM);
    EXPECT_EQ(size, 99U);
    EXPECT_TRUE(log.texts("ERRR").at(0).starts_with("can't tell the size of token HUGE: length "));
}

TEST_F(Tokens, LimitsPathsTo63Characters)
{
    const std::string fitting(63 - std::strlen(g_tokensPath) - 1, 'f');
    scratch_.write(fitting, "x");
    g_debugLevel = KIV_DEBUG_LEVEL_ALL;
    log_capture log;
    EXPECT_EQ(kiv_token_isExist(fitting.c_str()), KIV_OK);
    EXPECT_EQ(kiv_token_isExist((fitting + "f").c_str()), KIV_ERR_OPEN);
    EXPECT_TRUE(log.has("ERRR", "not enough space provided by the user 64 / 64"));
    EXPECT_TRUE(log.texts("ERRR").back().ends_with("its path has at most 63 characters"));
    kiv_token_deinit();
    EXPECT_EQ(kiv_token_isExist("no such token"), KIV_ERR_OPEN);
    EXPECT_TRUE(log.has("INF2", "open file: /no such token (nil)")) << "without a directory: at the root";
    const std::string path = "<systemTokensPath>" + std::string(80, 'p') + "</systemTokensPath>";
    ASSERT_EQ(kiv_config_init(scratch_.write("conf.xml", zol_test::configuration(path)).c_str()), 1);
    EXPECT_EQ(kiv_token_init(), KIV_OK);
    EXPECT_EQ(g_tokensPath, std::string(63, 'p'));
    kiv_config_deinit();
}

TEST_F(Tokens, ReportsEveryFailedCall)
{
    const int failures = zol_test::handled_failures([] {
        log_capture log;
        char buffer[16] = "";
        uint32_t size = 0;
        uint32_t read = 0;
        int32_t worst = std::min(kiv_token_isExist("CAL"), kiv_token_getSize("CAL", &size));
        worst = std::min(worst, kiv_token_getData("CAL", buffer, sizeof buffer, &read));
        const bool complete = size == 10 && read == 10;
        return (worst == KIV_OK) == zol_test::failed_call().empty() && (worst < 0 || complete);
    });
    EXPECT_GE(failures, 12) << "open, fstat, fdopen of each, and their reads";
}

} // namespace
