// The decimal number of a G-code word.
#pragma once

#include <cstddef>
#include <string>

/**
 * Reads a sign, digits and at most one point from uPos on; no exponent.
 * @param uPos    moved behind what was read, also when that is no number
 * @param dValue  set in any case
 * @return false without a digit
 */
bool takeNumber(const std::string& strText, size_t& uPos, double& dValue);
