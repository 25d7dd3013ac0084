/**
 * @file timing_log.hpp
 * @brief Timing logs.
 */
#ifndef ZOL_TIMING_LOG_HPP
#define ZOL_TIMING_LOG_HPP

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "zol/kiv_timinglog.h"
#include "zol/owner.hpp"
#include "zol/result.hpp"

namespace zol
{

/// A lane of a timing log.
struct lane {
    std::int32_t id;   ///< yours, unique; -1, -2 and -3 are taken
    const char *label; ///< title of the column
};

/// The lanes of one timing log, declared before it.
template <std::size_t N>
class lane_map
{
public:
    /// Copies the lanes; their labels stay yours.
    explicit lane_map(const lane (&lanes)[N]) noexcept
    {
        std::ranges::transform(lanes, entries_.begin(), [](const lane &from) {
            return kiv_tl_map_entry{from.id, from.label, 0, {}};
        });
        entries_[N].event_id = -1;
    }
    lane_map(const lane_map &) = delete;
    lane_map &operator=(const lane_map &) = delete;

    /// The map as the C interface takes it.
    [[nodiscard]] kiv_tl_map_entry *get() noexcept { return entries_.data(); }

private:
    std::array<kiv_tl_map_entry, N + 1> entries_{};
};

/**
 * A timing log; see kiv_timinglog.h. Any number of threads log to it at a time. An empty one logs nothing.
 * @code
 *     enum { READ = 1, FAILURE };
 *     zol::lane_map lanes({{READ, "read"}, {FAILURE, "failure"}});
 *     auto timing = zol::timing_log::open("sensor", lanes);
 *     const auto reading = timing->during(READ);               // high until the end of the block
 *     if (!sensor->read_reg8(0x0f))
 *         timing->pulse(FAILURE);
 * @endcode
 */
class timing_log : public detail::pointer<kiv_tl_ctx, kiv_tl_deinit>
{
public:
    using unique_ptr::unique_ptr;

    /// error::open when the file or the log's thread cannot be had.
    template <std::size_t N>
    static result<timing_log> open(const char *name, lane_map<N> &lanes) noexcept
    {
        errno = 0;
        timing_log opened(kiv_tl_init(name, lanes.get()));
        return opened ? result(std::move(opened)) : detail::outcome{error::open, errno};
    }

    /// Shows the lane high for an instant.
    void pulse(std::int32_t id) const noexcept { put(get(), id, KIV_TL_PULSE); }
    /// The lane is high from now on.
    void high(std::int32_t id) const noexcept { put(get(), id, KIV_TL_HIGH); }
    /// The lane is low from now on.
    void low(std::int32_t id) const noexcept { put(get(), id, KIV_TL_LOW); }

    /// Keeps a lane high as long as it lives.
    class [[nodiscard]] mark
    {
    public:
        /// See during().
        mark(kiv_tl_ctx *log, std::int32_t id) noexcept : log_(log), id_(id) { put(log_, id_, KIV_TL_HIGH); }
        ~mark() { put(log_, id_, KIV_TL_LOW); }
        mark(const mark &) = delete;
        mark &operator=(const mark &) = delete;

    private:
        kiv_tl_ctx *log_;
        std::int32_t id_;
    };
    /// The lane is high as long as what this returns lives.
    mark during(std::int32_t id) const noexcept { return {get(), id}; }

private:
    static void put(kiv_tl_ctx *log, std::int32_t id, std::int32_t value) noexcept
    {
        if (log != nullptr) {
            kiv_tl(log, id, value, nullptr);
        }
    }
};

} // namespace zol

#endif
