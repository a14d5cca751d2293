// The times of the interlock's rules that more than one of its files goes by; microseconds.
#pragma once

#include <cstdint>

static const int64_t MS = 1000;
static const int64_t SECOND = 1000 * MS;
static const int64_t NEVER = INT64_MAX;

// Towards the service.
static const int64_t SAME_WRITE = 30 * MS;         // what belongs to a line comes at once
static const int64_t ANSWER_COMMAND = 1500 * MS;   // the service waits for 2 s
static const int64_t ANSWER_JOB = 8 * SECOND;      // and for 10 s
static const int64_t SECOND_ANSWER_GAP = 100 * MS; // else both end in one read
static const int64_t SECOND_ANSWER = 19 * SECOND;  // the service waits for 20 s

// Towards the controller.
static const int64_t OFF_REPEAT = SECOND;      // Grbl greets 0.56 s after a reset in motion
static const int64_t LINE_MARGIN = 2 * SECOND; // beyond what is queued
static const int64_t HOME_TIME = 60 * SECOND;
static const int64_t HOME_REFUSED_BY = 200 * MS; // Grbl refuses after 4 ms
static const int64_t STEP_TIME = SECOND;         // a pause or the last laser off
static const int64_t ASK_IN_DARK = SECOND;
static const int64_t PROBE_AGAIN = 200 * MS;
