/**
 * @file settings.hpp
 * @brief Settings, calibration tokens and XML documents.
 */
#ifndef ZOL_SETTINGS_HPP
#define ZOL_SETTINGS_HPP

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "zol/kiv_config.h"
#include "zol/kiv_token.h"
#include "zol/owner.hpp"
#include "zol/result.hpp"

namespace zol
{

/// A setting as a number, if there is one; see kiv_config_get_param_int().
[[nodiscard]] inline std::optional<std::int32_t> setting(const char *section, const char *name) noexcept
{
    std::int32_t value = 0;
    return kiv_config_get_param_int(section, "", name, &value) == 1 ? std::optional(value) : std::nullopt;
}

/// A setting as text in your buffer, cut to what that holds with the text's end.
[[nodiscard]] inline std::optional<std::string_view> setting(const char *section, const char *name,
                                                             std::span<char> buffer) noexcept
{
    const bool found = kiv_config_get_param(section, "", name, buffer.data(), buffer.size()) == 1;
    return found ? std::optional<std::string_view>(buffer.empty() ? "" : buffer.data()) : std::nullopt;
}

/// The size of a token in bytes; error::open where there is none. See kiv_token.h.
inline result<std::uint32_t> token_size(const char *name) noexcept
{
    std::uint32_t size = 0;
    return detail::made<std::uint32_t>(detail::call(kiv_token_getSize, name, &size), size);
}

/// Reads of a token what fits. @return The part of the buffer that was filled.
inline result<std::span<std::byte>> read_token(const char *name, std::span<std::byte> buffer) noexcept
{
    std::uint32_t size = 0;
    const auto outcome = detail::call(kiv_token_getData, name, buffer.data(), buffer.size(), &size);
    return outcome.status == error::none ? result(buffer.first(size)) : outcome;
}

/// Owns what kiv_xml_allocate() and kiv_xml_allocateFromFile() return.
using xml_document = detail::pointer<struct _xmlDoc, kiv_xml_delete>;

} // namespace zol

#endif
