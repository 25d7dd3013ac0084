// The version of the library, given by the build.
#pragma once

namespace kiv
{

inline constexpr char version[] = KIV_VERSION;
static_assert(sizeof version == 6, "kiv_get_version() promises its callers that 6 bytes are enough");

} // namespace kiv
