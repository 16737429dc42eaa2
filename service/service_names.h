// The names under which the service control manager knows this service and the driver's.
#pragma once

namespace zel {

inline constexpr wchar_t kServiceName[] = L"ZelService";
inline constexpr wchar_t kServiceDisplayName[] = L"Velmora Activity Monitoring Service";
inline constexpr wchar_t kDriverServiceName[] = L"VelmoraActivityMonitor";

}  // namespace zel
