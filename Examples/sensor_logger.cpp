/*
 * A logger in C++: a worker reads a sensor every 20 milliseconds and notifies of each reading; the main
 * thread waits for readings and for the button on pin 17, which ends the program. A timing log
 * shows each reading and each failure.
 *
 *     kivboard run -- sh -c \
 *         'sensor_logger & sleep 1; kivboard raise 17; wait; zol_timing /var/log/zol/sensor.csv'
 */
#include <array>
#include <chrono>
#include <cstdio>
#include <zol/zol.hpp>

using namespace std::chrono_literals;

namespace
{

enum { READ = 1, FAILURE };

struct reading {
    std::uint32_t number;
    std::uint32_t value;
};

int log_readings()
{
    reading last = {};
    std::array waited_for = {zol::wait_entry("reading", zol::bytes_of(last)), zol::wait_entry("button")};
    zol::wait_entry &button = waited_for[1];
    while (!button.has_fired()) {
        if (const auto waited = zol::wait_for(waited_for, 10s); !waited) {
            std::printf("no reading: %s\n", waited.error().message().c_str());
            return 1;
        }
        if (waited_for[0].has_fired())
            std::printf("reading %u: 0x%02x\n", last.number, last.value);
    }
    std::printf("the button was pressed\n");
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    const auto library = zol::library::start(argc > 1 ? argv[1] : "Conf/kiv_test.xml");
    zol::lane_map lanes({{READ, "read"}, {FAILURE, "failure"}});
    const auto timing = zol::timing_log::open("sensor", lanes);
    auto sensor = zol::i2c_device::open(4, 0x18);
    const auto group = zol::event_group::create("logger");
    if (!library || !timing || !sensor || !group)
        return 1;
    auto readings = zol::event::create(*group, "reading");
    auto pressed = zol::event::create(*group, "button");
    if (!readings || !readings->enable() || !pressed || !pressed->enable())
        return 1;

    reading next = {};
    auto sample = [&](const zol::received &message) { // on the worker's thread
        if (!message.is_timeout())
            return;
        const auto value = [&] {
            const auto reading = timing->during(READ);
            return sensor->read_reg8(0x0f);
        }();
        next = {next.number + 1, value ? *value : 0U};
        if (!value || !readings->notify(zol::bytes_of(next)))
            timing->pulse(FAILURE);
    };
    auto on_press = [&](int) { static_cast<void>(pressed->notify()); }; // on the listener's

    const auto sampler = zol::worker::start("sampler", sample, 20ms);
    auto button = zol::pin::request(17, "button");
    if (!sampler || !button || !button->watch(zol::trigger::rising, on_press))
        return 1;
    return log_readings();
}
