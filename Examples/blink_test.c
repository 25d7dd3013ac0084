/*
 * kivtest.exe with a test module of one's own: "blink" switches a lamp and checks the level of its pin.
 * Options behind -m are the module's. It logs at two levels (-x shows all), and an assertion that fails is reported
 * and the test goes on.
 *
 *     blink_test -s 1 -m blink -n 4          # -s 1: without a board
 *     kivboard run -- blink_test -x -m blink -p 6
 */
#include <getopt.h>
#include <stdio.h>
#include <zol/zol.h>

static int blink(int pin, int times)
{
    int wrong = 0;
    for (int i = 1; i <= times; i++) {
        int level = -1;
        kiv_gpio_set(pin, i % 2);
        kiv_gpio_get(pin, &level);
        KIV_LOG_INF1("pin %d is %d\n", pin, level);
        KIV_ASSERT(level == i % 2);
        wrong += level != i % 2;
    }
    return wrong;
}

static int test_blink(int argc, char **argv, unsigned test_flags)
{
    int pin = 5, times = 2, option;
    while ((option = getopt(argc, argv, "p:n:")) != -1) {
        if (option == 'p')
            pin = stoi(optarg);
        else if (option == 'n')
            times = stoi(optarg);
    }
    kiv_gpio_set_simulator_mode((test_flags & KIV_TEST_FLAG_SIMULATOR) != 0);
    if (kiv_gpio_request(pin, "lamp") != KIV_OK)
        return 0;
    int wrong = blink(pin, times);
    kiv_gpio_free(pin);
    printf("pin %d was switched %d times, %d wrong\n", pin, times, wrong);
    KIV_LOG_PRNT("blink %s\n", wrong == 0 ? "passed" : "failed");
    return wrong == 0;
}

int main(int argc, char **argv)
{
    static const kiv_test_item module = {"blink", "switch a lamp", "-p <pin> -n <times>\n", test_blink, 0};
    kiv_test_util_register(&module);
    return kiv_test_main(argc, argv) == KIV_OK ? 0 : 1;
}
