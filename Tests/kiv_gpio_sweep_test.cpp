// Every failing call in the life of a pin, of each kind.

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "support/fake_chips.h"
#include "support/gpio_test.h"

using zol_test::calls;
using zol_test::log_capture;
using zol_test::watch;
using strings = std::vector<std::string>;

namespace
{

using Gpio = zol_test::GpioTest;

enum pin_kind { board, simulated, line };

class GpioSweep : public Gpio, public testing::WithParamInterface<pin_kind>
{
protected:
    GpioSweep()
    {
        kiv_gpio_set_simulator_mode(GetParam() == simulated ? 1 : 0);
        kiv_gpio_deinit();
        kiv_config_deinit();
        const char *const chips = GetParam() == line ? "<gpio_chips_num>1</gpio_chips_num>"
                                                       "<gpio_chip_0_dev>soc</gpio_chip_0_dev>"
                                                     : "";
        const std::string general = std::string("<configName>sweep</configName>") + chips;
        kiv_config_init(scratch_.write("conf.xml", zol_test::configuration(general)).c_str());
        EXPECT_EQ(live(), ""); // after which the fake has all its lines
    }

    // A step that fails returns the status of the call that failed. Every other failure has to be survived.
    static bool is_documented(int32_t status)
    {
        static const std::pair<int32_t, const char *> documented[] = {{KIV_ERR_OPEN, "open"},
                                                                      {KIV_ERR_OPEN, "ioctl"},
                                                                      {KIV_ERR_SYSTEM, "ioctl"},
                                                                      {KIV_ERR_SYSTEM, "fcntl"},
                                                                      {KIV_ERR_NO_MEMORY, "_Zn"},
                                                                      {KIV_ERR_SYSTEM, "pipe2"},
                                                                      {KIV_ERR_SYSTEM, "sem_init"},
                                                                      {KIV_ERR_SYSTEM, "write"},
                                                                      {KIV_ERR_SYSTEM, "pthread_create"},
                                                                      {KIV_ERR_SYSTEM, "pthread_attr_init"}};
        return std::any_of(std::begin(documented), std::end(documented), [status](const auto &each) {
            return each.first == status && zol_test::failed_call().starts_with(each.second);
        });
    }

    // A chip that is not found at the start is left out until the next.
    static int32_t start(const log_capture &log)
    {
        const int32_t status = kiv_gpio_init();
        const bool lacks_chip = GetParam() == line && status == KIV_OK && !log.texts("ERRR").empty();
        return lacks_chip && kiv_gpio_deinit() == KIV_OK ? kiv_gpio_init() : status;
    }

    bool raise_twice(int pin, calls &calls)
    {
        if (GetParam() == line) {
            chips_.raise();
            chips_.raise();
        } else {
            pins_.raise(pin, 2);
        }
        return GetParam() == simulated || calls.become(2);
    }

    // A whole life, in which a step that failed is taken once more.
    std::string live()
    {
        log_capture log;
        calls calls;
        zol_test::calls next;
        int value = 0;
        std::string complaint;
        const std::pair<const char *, std::function<int32_t()>> steps[] = {
            {"init", [&] { return start(log); }},
            {"request", [] { return kiv_gpio_request(5, "first"); }},
            {"free", [] { return kiv_gpio_free(5); }}, // the listener has started now, and waits
            {"request", [] { return kiv_gpio_request(17, "swept"); }},
            {"set", [] { return kiv_gpio_set(17, 1); }},
            {"get", [&] { return kiv_gpio_get(17, &value); }},
            {"register", [&] { return watch(17, calls); }},
            {"raise", [&] { return raise_twice(17, calls) ? KIV_OK : KIV_ERR_TIMEOUT; }},
            {"unregister", [] { return kiv_gpio_unregister_callback(17); }},
            {"request", [] { return kiv_gpio_request(18, "takes its place"); }},
            {"register", [&] { return watch(18, next); }},
            {"raise", [&] { return raise_twice(18, next) ? KIV_OK : KIV_ERR_TIMEOUT; }},
            {"free", [] { return kiv_gpio_free(18); }},
            {"free", [] { return kiv_gpio_free(17); }},
            {"deinit", kiv_gpio_deinit},
        };
        for (const auto &[name, step] : steps) {
            if (const int32_t status = step(); status != KIV_OK) {
                refusals_.push_back(name + (" " + std::to_string(status)));
                complaint += is_documented(status) && step() == KIV_OK ? "" : refusals_.back();
            }
        }
        const std::string failed = zol_test::failed_call();
        const bool is_tried_again = failed == "read" || failed == "fstat";
        if (!is_tried_again && failed.empty() != log.texts("ERRR").empty()) {
            complaint += failed.empty() ? "an error line without an error" : "unreported";
        }
        return complaint;
    }

    strings refusals_; // "free -30", whenever a step fails
    zol_test::fake_chips chips_{{{"soc", 32}}};
};

TEST_P(GpioSweep, ReportsOrSurvivesEveryFailure)
{
    const zol_test::sweep_result result = zol_test::sweep_faults([this] { return live(); });
    EXPECT_EQ(result.complaints, "");
    EXPECT_GE(result.failures, GetParam() == simulated ? 20 : 40);
    refusals_.clear();
    EXPECT_EQ(zol_test::sweep_faults([this] { return live(); }, "write").complaints, "");
    EXPECT_EQ(refusals_, (strings{"free -30", "register -30", "register -30", "free -30", "free -30"}))
        << "no other write is refused: to a node, of an unregistration, of the stop";
}

constexpr const char *kinds[] = {"board", "simulated", "line"};

INSTANTIATE_TEST_SUITE_P(Pins, GpioSweep, testing::Values(board, simulated, line),
                         [](const auto &kind) { return kinds[kind.param]; });

} // namespace
