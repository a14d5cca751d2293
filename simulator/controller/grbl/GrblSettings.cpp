// The numbered settings ("$n=value") of a controller that speaks Grbl 1.1.
#include "GrblSettings.h"

#include <cmath>
#include <cstdio>

#include "GrblErrors.h"

static const int PULSE_US = 0;

static bool isWhole(int nNumber)
{
    switch (nNumber) {
    case GrblSettings::JUNCTION_DEVIATION:
    case GrblSettings::ARC_TOLERANCE:
    case GrblSettings::HOMING_FEED:
    case GrblSettings::HOMING_SEEK:
    case GrblSettings::HOMING_PULL_OFF:
        return false;
    default:
        return nNumber < GrblSettings::STEPS;
    }
}

GrblSettings::GrblSettings()
{
    restore();
}

void GrblSettings::restore()
{
    m_mapValue = {{0, 10},    {1, 25},    {2, 0},     {3, 0},      {4, 0},     {5, 0},
                  {6, 0},     {10, 1},    {11, 0.01}, {12, 0.002}, {13, 0},    {20, 0},
                  {21, 0},    {22, 0},    {23, 0},    {24, 25},    {25, 500},  {26, 250},
                  {27, 1},    {30, 1000}, {31, 0},    {32, 0},     {100, 250}, {101, 250},
                  {102, 250}, {110, 500}, {111, 500}, {112, 500},  {120, 10},  {121, 10},
                  {122, 10},  {130, 200}, {131, 200}, {132, 200}};
}

int GrblSettings::set(int nNumber, double dValue)
{
    const auto it = m_mapValue.find(nNumber);
    if (m_mapValue.end() == it) {
        return GRBL_ERROR_DOLLAR;
    }
    if (dValue < 0) {
        return GRBL_ERROR_NEGATIVE;
    }
    if (PULSE_US == nNumber && dValue < 3) {
        return GRBL_ERROR_PULSE;
    }
    if (SOFT_LIMITS == nNumber && dValue != 0 && !isOn(HOMING)) {
        return GRBL_ERROR_NO_HOMING;
    }
    it->second = isWhole(nNumber) ? std::floor(dValue) : dValue;
    if (HOMING == nNumber && !isOn(HOMING)) {
        m_mapValue[SOFT_LIMITS] = 0; // they need a known position
    }
    return 0;
}

std::string GrblSettings::format() const
{
    std::string strResult;
    for (const auto& [nNumber, dValue] : m_mapValue) {
        char acLine[64] = {0};
        snprintf(acLine, sizeof(acLine), "$%d=%.*f\r\n", nNumber, isWhole(nNumber) ? 0 : 3, dValue);
        strResult += acLine;
    }
    return strResult;
}
