// Device classes: every device-dependent choice of the library is a test on one of eight fixed classes, into which
// a device is sorted by the architecture identifier that the SYCL runtime reports. Free of torch, so that the tables
// can be tested by themselves.
#pragma once

#include <array>
#include <cstdint>

namespace quillon {

enum class XpuDeviceClass : int { oak, elm, ash, fir, yew, bay, legacy, unknown };

inline constexpr std::array<const char*, 8> kDeviceClassNames = {"oak", "elm", "ash",    "fir",
                                                                 "yew", "bay", "legacy", "unknown"};

struct ListedArchitecture {
  std::uint64_t identifier;
  XpuDeviceClass device_class;
};

inline constexpr std::array<ListedArchitecture, 14> kListedArchitectures = {{
    {0x300000000, XpuDeviceClass::legacy},
    {0x300400000, XpuDeviceClass::legacy},
    {0x300800000, XpuDeviceClass::legacy},
    {0x300C00000, XpuDeviceClass::legacy},
    {0x301000000, XpuDeviceClass::legacy},
    {0x30DC00800, XpuDeviceClass::oak},
    {0x30E000500, XpuDeviceClass::oak},
    {0x30E400000, XpuDeviceClass::oak},
    {0x30F000700, XpuDeviceClass::elm},
    {0x311800400, XpuDeviceClass::ash},
    {0x311C00400, XpuDeviceClass::ash},
    {0x312800400, XpuDeviceClass::bay},
    {0x500400400, XpuDeviceClass::yew},
    {0x501000400, XpuDeviceClass::fir},
}};

constexpr XpuDeviceClass classify_architecture(std::uint64_t identifier) {
  for (const ListedArchitecture& listed : kListedArchitectures)
    if (listed.identifier == identifier) return listed.device_class;
  return XpuDeviceClass::unknown;
}

constexpr const char* device_class_name(XpuDeviceClass device_class) {
  return kDeviceClassNames[static_cast<int>(device_class)];
}

}  // namespace quillon
