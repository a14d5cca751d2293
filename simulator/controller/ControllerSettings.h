// How a virtual controller behaves, whatever language it speaks.
#pragma once

#include <cstdint>
#include <string>

#include "Motion.h"

/** How a controller behaves; times in microseconds. Controllers differ in the habits. */
struct ControllerSettings
{
    bool bAnswerEmptyLines = false; // a second line end behind a line is a line as well
    bool bAlarmKeepsLaser = false;  // else it is off, as in a hold
    bool bHoldKeepsLaser = false;
    bool bResetLaserOn = false; // the reset line switches the laser on
    bool bPowerUpLaserOn = false;
    bool bPilotOff = false;     // the pilot spot is off at power-up and after a reset
    bool bBootGreeting = false; // it greets when it has booted, not after the byte 0x18 alone
    int64_t s64StatusUs = 0;    // while it moves it tells a status unasked that often; 0: never
    int64_t s64IdleOffUs = 0; // at rest and without a byte for so long the laser goes off; 0: never

    double dSpeedUp = 1;               // the arm moves that many times faster
    int64_t s64SettleUs = 100000;      // least time between a move's two answers
    int64_t s64AnswerUs = 0;           // what each line takes it to answer
    int64_t s64ImageQuietUs = 1000000; // silence that ends a firmware image of unknown length
    Point powerUpPosition{};           // where the head stands, in millimetres
    std::string strImagePath;          // where a received firmware image is kept
};
