/**
 * @file library.hpp
 * @brief The started library, and its lock.
 */
#ifndef ZOL_LIBRARY_HPP
#define ZOL_LIBRARY_HPP

#include "zol/owner.hpp"
#include "zol/result.hpp"
#include "zol/zol.h"

namespace zol
{

namespace detail
{

inline void stop_library(bool) noexcept
{
    zol_deinit();
}

} // namespace detail

/**
 * The started library, which is stopped when this goes. One at a time.
 * @code
 *     const auto library = zol::library::start("Conf/kiv_test.xml");
 *     if (!library)
 *         return 1;
 * @endcode
 */
class library : public detail::owned<bool, detail::stop_library>
{
public:
    using owned::owned;

    /// @param config  As for zol_init(): null for the board's own; the text stays valid until the stop.
    static result<library> start(const char *config = nullptr) noexcept
    {
        return detail::made<library>(detail::call(zol_init, config), true);
    }
};

/// The library lock, for std::scoped_lock.
struct library_mutex {
    /// kiv_lock().
    void lock() noexcept { kiv_lock(); }
    /// kiv_unlock().
    void unlock() noexcept { kiv_unlock(); }
};

} // namespace zol

#endif
