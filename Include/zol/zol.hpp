/**
 * @file zol.hpp
 * @brief libzol for C++20: owners, spans, durations and callables over the C interface, and nothing more.
 *
 * It includes one header for each part of the interface; they can be included alone as well.
 *
 * @code
 *     #include <cstdio>
 *     #include <zol/zol.hpp>
 *
 *     int main()
 *     {
 *         const auto library = zol::library::start();          // reads /etc/kiv/conf.xml
 *         auto sensor = zol::i2c_device::open(4, 0x18);
 *         if (!library || !sensor)
 *             return 1;
 *         if (const auto id = sensor->read_reg8(0x0f))
 *             std::printf("the sensor says that it is a 0x%02x\n", *id);
 *         else
 *             std::printf("%s\n", id.error().message().c_str());
 *     }
 * @endcode
 *
 * **Results.** A call that can fail returns a zol::result. On success it is true, and is used like a pointer to
 * the value; otherwise it has an error(). Nothing throws, and the header compiles with -fno-exceptions -fno-rtti.
 *
 * **Owners** are moved, not copied; a moved-from owner is empty, as a default-constructed one is, and refuses
 * everything with error::invalid_param. The object goes with its owner. Declare in the order of need: first the
 * library, then the variables of a callable, the callable, and its caller. They are destroyed in the opposite order.
 * get() gives the handle for the C interface; the handle stays the owner's.
 *
 * **Callables** are referred to, never copied: a handler or callback is a variable of yours that outlives its
 * use; a temporary does not compile. An exception that leaves one ends the process.
 *
 * **Costs.** All of it is inline and forwards to the C call of the same name, whose comment holds here too:
 * ranges, statuses, threads. Only zol::worker::start() and zol::message::make() allocate by themselves, once.
 */
#ifndef ZOL_ZOL_HPP
#define ZOL_ZOL_HPP

#if __cplusplus <= 201703L
#    error "zol.hpp needs C++20: compile with -std=c++20."
#else

#    include "zol/zol.h"

#    include "zol/bytes.hpp"
#    include "zol/event.hpp"
#    include "zol/i2c_device.hpp"
#    include "zol/library.hpp"
#    include "zol/pin.hpp"
#    include "zol/result.hpp"
#    include "zol/settings.hpp"
#    include "zol/time_limit.hpp"
#    include "zol/timing_log.hpp"
#    include "zol/worker.hpp"

#endif
#endif
