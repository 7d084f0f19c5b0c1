// PVSSboolean: the truth value of the platform's interfaces.
#pragma once

using PVSSboolean = bool;

inline constexpr PVSSboolean PVSS_FALSE = false;
inline constexpr PVSSboolean PVSS_TRUE = true;
