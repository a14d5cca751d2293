// Burns the beam's way into the virtual workpiece.
#pragma once

#include "SceneState.h"

/**
 * A focused beam chars a line about 0.25 mm wide; out of focus it is wider and paler. Each stretch
 * burns a share of what is left, so that going over it again deepens it and nothing ends it at
 * once.
 *
 * The share is 1 - exp(-e / E), with e the energy that a place gets and E = 0.01 s/mm of power
 * 1000 along a line, at its middle: one pass with power 1000 at 1500 mm/min leaves 2 % of the
 * surface there, with power 200 45 %. Across the line the energy is a Gaussian of sigma = 0.06 mm
 * in focus, a fifth of the pilot spot's, and ends at 2.5 sigma.
 *
 * Not thread-safe; nothing else may burn.
 */
class Burner
{
public:
    /** In the scene's millimetres; z is the distance from the focus. */
    struct Place
    {
        double dX;
        double dY;
        double dZ;
    };

    /** @param burnt  borrowed as long as the object lives */
    explicit Burner(BurntState& burnt) : m_burnt(burnt) {}

    /**
     * Go straight from one place to the other, at an even speed.
     * @param dEnergy  power (S word) times seconds
     */
    void burn(const Place& from, const Place& to, double dEnergy);

private:
    void burnPiece(const Place& from, const Place& to, double dEnergy);

    BurntState& m_burnt;
};
