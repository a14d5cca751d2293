// JPEG pictures to and from memory.
#pragma once

#include <cstdint>
#include <vector>

#include "Raster.h"

namespace Jpeg {

/** Encode with half the colour columns, as USB cameras do. @param nQuality 1 .. 100 */
void encode(const Raster& raster, int nQuality, std::vector<uint8_t>& vecByte);

/** @return false for anything but a whole JPEG picture */
bool decode(const std::vector<uint8_t>& vecByte, Raster& raster);

} // namespace Jpeg
