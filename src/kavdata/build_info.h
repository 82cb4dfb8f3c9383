// What the firmware text and the build banner say of the build.
#ifndef KAVPLAT_KAVDATA_BUILD_INFO_H
#define KAVPLAT_KAVDATA_BUILD_INFO_H

namespace kavplat
{

inline constexpr char build_number[] = "108523";
inline constexpr char build_date[] = "Fri Mar 11 07:19:17 PST 2016";
inline constexpr char build_user[] = KAVPLAT_BUILD_USER;

} // namespace kavplat

#endif
