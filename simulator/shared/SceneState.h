// What both virtual devices share: where the laser spot is, and what the beam has burnt.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
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
    std::atomic<uint32_t> u32LaserOn; // a LIGHT_E
};

/** What is seen at the spot. */
enum LIGHT_E : uint32_t
{
    LIGHT_OFF,
    LIGHT_PILOT, // a red spot that only shows where
    LIGHT_BEAM   // the beam, which burns
};

/**
 * What has been burnt into the workpiece: of each square cell a share, from 0, untouched, to 1,
 * charred through.
 *
 * The cells cover what a camera without a distorting lens sees: columns from -32 mm to the right,
 * rows from -24 mm downwards. What is burnt beyond is forgotten. The controller's simulator
 * writes it; the camera's reads it, and clears it for a new workpiece.
 */
struct BurntState
{
    static constexpr size_t COLUMNS = 1280;
    static constexpr size_t ROWS = 960;
    static constexpr double CELL_MM = 0.05;

    std::atomic<uint32_t> u32Changes; // grows behind a change; 0: nothing was ever burnt
    std::array<std::atomic<float>, COLUMNS * ROWS> afShare;
};

/** What the file holds. */
struct SceneRecord
{
    SceneState spot;
    BurntState burnt;
};

static_assert(sizeof(SceneState) == 16, "two programs map this record");
static_assert(sizeof(SceneRecord) == 16 + 4 + 4 * 1280 * 960, "and this one");
