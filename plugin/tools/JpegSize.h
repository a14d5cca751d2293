// The size of a JPEG picture, without decoding it.
#pragma once

#include <cstddef>
#include <cstdint>

/** @return false when the bytes begin with no JPEG header that has a size */
bool jpegSize(const uint8_t* pData, size_t uSize, uint32_t& u32Width, uint32_t& u32Height);
