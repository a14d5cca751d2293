// Everything that the reference plug-in needs to know about camera, lens, workpiece and spot.
#pragma once

/**
 * The values are those of the virtual camera's scene. For a real camera measure them anew: a ruler
 * across the picture gives the field's width, pictures of a printed chessboard the lens
 * (kestrel-calibrate-lens), a series of pictures at known heights the spot.
 *
 * Pictures of any size are taken as the same field of view: lengths in the picture are fractions of
 * its width. Positions on the workpiece are in millimetres from the point in the picture's centre,
 * x to the right, y downwards; heights are in millimetres of the arm's Z axis.
 */
struct Parameters
{
    // Geometry.

    /** Millimetres of the workpiece from the left to the right edge of an undistorted picture. */
    double dFieldWidthMm = 64.0;

    // Lens, as OpenCV's camera model has it: what a lens without distortion would show x and y from
    // the centre, in focal lengths, appears, with r * r = x * x + y * y and
    // f = 1 + k1 r^2 + k2 r^4 + k3 r^6, at
    //     x f + 2 p1 x y + p2 (r^2 + 2 x^2)  and  y f + p1 (r^2 + 2 y^2) + 2 p2 x y.
    // k1 below 0 alone is a barrel. A file beside the plug-in replaces all of these: LensFile.h.

    /** Focal lengths across and down, in picture widths. */
    double dFocalLengthX = 0.5;
    double dFocalLengthY = 0.5;
    /** The lens's centre from the picture's, in picture widths, to the right and downwards. */
    double dCentreX = 0.0;
    double dCentreY = 0.0;
    double dRadialK1 = 0.0;
    double dRadialK2 = 0.0;
    double dTangentialP1 = 0.0;
    double dTangentialP2 = 0.0;
    double dRadialK3 = 0.0;

    // Spot. Redness is red less what else is there, 0 to 255.

    /** A weaker spot is taken for noise. At 8 it is found up to 7 mm out of focus. */
    double dMinRedness = 8.0;
    /**
     * Redness that the spot would have in focus; less is too dark to place it. With the virtual
     * camera it is 215 at the start exposure; at 55 a place was up to 0.4 pixels off.
     */
    double dMinFocusedRedness = 70.0;
    /** Redness that a spot must have for its width to be measured. */
    double dMinFocusRedness = 25.0;
    /**
     * Greatest median of a picture's brightness: a spot on a brighter plate is all but cut off. At
     * 239 a place was up to 1.4 pixels off.
     */
    int nMaxMedian = 220;
    /** Largest share of the spot's light on clipped pixels for placing it, and for its width. */
    double dMaxClipped = 0.93;
    double dMaxClippedForFocus = 0.5;
    /** The same for judging where the last measurement led, which has to be more exact. */
    double dMaxClippedForSide = 0.02;
    /** A spot that is found so close to where it was last counts as not moved, in millimetres. */
    double dStillMm = 0.02;

    // Focus: the spot is a Gaussian whose standard deviation grows in proportion to the distance of
    // the laser from its focus, to either side.

    /** Standard deviation in focus, in millimetres on the workpiece. */
    double dFocusedSigmaMm = 0.3;
    /** Growth of the standard deviation per millimetre of distance. */
    double dBlurPerMm = 0.15;
    /**
     * Homed this close to its focus the laser stays there, in millimetres; what a width can
     * resolve.
     */
    double dFocusToleranceMm = 0.1;
    /**
     * Larger distances are refused, in millimetres. A first measurement that takes the wrong side
     * doubles the distance: the spot must still be found then.
     */
    double dMaxHeightMm = 3.5;
    /** 1 when the focus is always above the homed laser (at a positive Z), -1 below, 0 unknown. */
    int nKnownSide = 0;
    /** While the side is unknown: what the first measurement takes for it. */
    int nFirstSide = 1;

    // Exposure, in units of the camera's exposure_absolute (100 us).

    /** In force until the first suggestion; UVC cameras' usual default. */
    int nStartExposure = 157;
    int nMinExposure = 1;
    /** 40 ms: longer ones would cost frames at 25 per second. */
    int nMaxExposure = 400;
    /** Target brightness of the picture's median; the middle leaves room for the spot. */
    int nTargetMedian = 128;
    /**
     * Brightness of a blurred spot's brightest pixel that is best for its width; it is not clipped.
     */
    double dSpotBrightness = 225.0;
    /** Largest factor by which a picture is brightened for the spot's sake. */
    double dMaxBrightening = 1.4;
    /** Largest factor between two suggestions: a clipped picture doesn't show how far to go. */
    double dMaxExposureStep = 4.0;

    // Pictures.

    /** Larger pictures are refused, in pixels per side; bounds the memory a picture takes. */
    int nMaxSide = 4096;
    /** JPEG quality of corrected pictures, 1 to 100. */
    int nJpegQuality = 90;
};
