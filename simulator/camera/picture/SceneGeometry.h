// Where things are in the rendered picture, to compare what was seen with the truth.
#pragma once

#include <cstdint>

/**
 * The rendered scene: a workpiece seen straight from above, in millimetres, and the lens.
 *
 * Pixel (i, j) has its centre at (i, j); the picture's centre, where the workpiece's origin lies,
 * is at ((width - 1) / 2, (height - 1) / 2). x grows to the right, y downwards.
 *
 * Scale: width / 64 pixels per millimetre in both directions: 10 at 640x480 (64 x 48 mm are seen),
 * 20 at 1280x720 (64 x 36 mm).
 *
 * Grid: lines with their middle at every whole multiple of 5 mm, 0.2 mm wide, grey value 70 on a
 * plate of 150; the plate reaches from -28 to 28 mm in x and from -21 to 21 mm in y and lies on a
 * table of 95; all are neutral grey.
 *
 * Spot: weight w = peak * exp(-d^2 / (2 sigma^2)) at distance d from the position in the scene
 * state; sigma = 0.3 mm + 0.15 * |z|, peak = (0.3 mm / sigma)^2. The colour is w * (255, 40, 40) +
 * (1 - w) * what lies beneath, so that red minus green is 215 * w wherever the spot is.
 *
 * Beam: a spot as bright in its middle as can be: over the spot's colour lies white, with the
 * weight peak * exp(-d^2 / (2 (sigma / 3)^2)).
 *
 * Burnt: what the beam has gone over is darker; the workpiece's value goes from what it was to 20
 * with the share that is burnt of the pixel (SceneState.h, Burner.h).
 *
 * Light: every value is multiplied by the exposure factor (exposure_absolute / 157 in manual mode,
 * else 1), 2 * brightness is added, and the result is cut to 0 .. 255.
 *
 * Lens: an ideal offset from the picture's centre, in units of half the width, (u, v) with
 * r^2 = u^2 + v^2, appears at (u, v) * (1 + k1 * r^2). In the terms of a usual camera model: focal
 * length width / 2, principal point the centre, one radial coefficient.
 *
 * Grain: each pixel's grey value beneath the spot is off by at most 6, always by the same amount,
 * less where it is burnt.
 *
 * Writing, after light and lens: frame number and wall-clock time, white on black, in the box
 * (8, 8) .. (8 + 248 * s, 8 + 20 * s) with s = width / 640; a white block of 16s x 6s pixels runs
 * along the lower edge, 4s pixels per frame.
 */
class SceneGeometry
{
public:
    static constexpr double FIELD_MM = 64.0; // width of what is seen
    static constexpr double GRID_MM = 5.0;
    static constexpr double LINE_MM = 0.2;
    static constexpr double PLATE_X_MM = 28.0; // half the plate's width
    static constexpr double PLATE_Y_MM = 21.0;
    static constexpr double SIGMA_MM = 0.3; // of the spot in focus
    static constexpr double BLUR_PER_MM = 0.15;
    static constexpr int SPOT_RED = 255;
    static constexpr int SPOT_GREEN = 40;   // and blue
    static constexpr double MIN_K1 = -0.09; // beyond, corners show no point at all
    static constexpr double MAX_K1 = 0.5;

    SceneGeometry(uint32_t u32Width, uint32_t u32Height, double dK1);

    struct Point
    {
        double dX;
        double dY;
    };
    /** Millimetres on the workpiece to the pixel where they appear, and back. */
    Point toPixel(const Point& millimetre) const;
    Point toMillimetre(const Point& pixel) const;

    double getPixelsPerMillimetre() const;
    static double sigmaMillimetre(double dZMillimetre);
    static double peak(double dZMillimetre);

private:
    double m_dHalfWidth;
    double m_dCentreX;
    double m_dCentreY;
    double m_dScale;
    double m_dK1;
};
