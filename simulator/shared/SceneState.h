// The part of the virtual workpiece that both virtual devices share: where the laser spot is.
#pragma once

#include <atomic>
#include <cstdint>

/**
 * The laser arm's true state, in a file that the controller's simulator writes and the camera's
 * simulator draws (both map it shared and writable; either may create it, zero bytes are a valid
 * start: laser off at the origin).
 *
 * Positions are in micrometres of the workpiece's plane, so that each fits an atomic of 32 bits.
 * The picture's centre is x = 0, y = 0; x grows to the right, y downwards; z = 0 is in focus and
 * the spot's blur grows with |z|. Each field is read and written on its own; a picture drawn in the
 * middle of a move may mix two positions that are one step apart.
 */
struct SceneState
{
    std::atomic<int32_t> s32XMicrometre;
    std::atomic<int32_t> s32YMicrometre;
    std::atomic<int32_t> s32ZMicrometre;
    std::atomic<uint32_t> u32LaserOn; // 0 off, anything else on
};

static_assert(sizeof(SceneState) == 16, "two programs map this record");
