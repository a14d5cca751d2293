// The result code that the modules, the capture side and the base runtime share.
#pragma once

/**
 * RET_SUCCESS means success; every other value is a failure and is passed upward unchanged.
 * Callers test only for zero versus non-zero.
 */
// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming): an agreed name
typedef enum [[nodiscard]] _RET_E{
    RET_SUCCESS = 0,
    RET_FAILED = 1,  // a refused lifecycle step, and the generic failure of wrappers
    RET_TIMEOUT = 2, // capture: no frame arrived within the wait
    RET_AGAIN = 3    // capture: nothing usable this time, retry at once
} RET_E;
