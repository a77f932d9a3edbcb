// SGuid: a 128-bit identifier (of reduction object kinds). A plain record.
#pragma once

#include <cstdint>

namespace zeb {

struct SGuid {
  std::uint32_t data1;
  std::uint16_t data2;
  std::uint16_t data3;
  std::uint8_t data4[8];

  bool operator==(const SGuid& other) const {
    if (data1 != other.data1 || data2 != other.data2 || data3 != other.data3) return false;
    for (int i = 0; i < 8; ++i) {
      if (data4[i] != other.data4[i]) return false;
    }
    return true;
  }
  bool operator!=(const SGuid& other) const { return !(*this == other); }
};

static_assert(sizeof(SGuid) == 16, "SGuid is 128 bits");

}  // namespace zeb
