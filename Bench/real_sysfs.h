// Pins whose nodes lie in the kernel's own sysfs.
#pragma once

namespace zol_bench
{

inline constexpr int first_real_pin = 1000;
inline constexpr char real_attribute[] = "/sys/class/net/lo/ifindex";

} // namespace zol_bench
