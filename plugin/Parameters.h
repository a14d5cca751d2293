// Everything that the reference plug-in has to be told about camera, lens, workpiece and spot.
#pragma once

/**
 * The values are those of the virtual camera's scene. For a real camera measure them anew: a ruler
 * across the picture gives the field's width, a sheet of graph paper the lens, a series of pictures
 * at known heights the spot.
 *
 * Pictures of any size are taken as the same field of view: lengths in the picture are told in
 * parts of its width. Positions on the workpiece are in millimetres from the point in the picture's
 * centre, x to the right, y downwards; z is the laser's height above the workpiece less the height
 * at which the spot is in focus.
 */
struct Parameters
{
    // Geometry.

    /** Millimetres of the workpiece from the left to the right edge of an undistorted picture. */
    double dFieldWidthMm = 64.0;

    // Lens: one radial coefficient. What an ideal lens would show at a distance r from the centre,
    // in focal lengths, appears at r * (1 + dRadialK1 * r * r); below 0 is a barrel.

    /** Focal length in picture widths. */
    double dFocalLength = 0.5;
    double dRadialK1 = 0.0;

    // Spot. Redness is red less the larger of green and blue, 0 to 255.

    /** A weaker spot is taken for noise. At 10 it is found up to 7 mm out of focus. */
    double dMinRedness = 10.0;
    /**
     * Standard deviation, in pixels, of the blur that the picture itself adds: USB cameras store
     * one colour for two pixels. Measured on the virtual camera's pictures.
     */
    double dPictureBlurPixels = 0.7;

    // Focus: the spot is a Gaussian whose standard deviation grows in proportion to |z|.

    /** Standard deviation in focus, in millimetres on the workpiece. */
    double dFocusedSigmaMm = 0.3;
    /** Growth of the standard deviation per millimetre of |z|. */
    double dBlurPerMm = 0.15;
    /** Heights below count as in focus, in millimetres; about what the spot's width can tell. */
    double dFocusToleranceMm = 0.1;
    /** The side of the focus that is tried first: 1 when the laser usually stands too high. */
    double dFirstSide = 1.0;

    // Exposure, in units of the camera's exposure_absolute (100 us).

    /** In force until the first suggestion; UVC cameras' usual default. */
    int nStartExposure = 157;
    int nMinExposure = 1;
    /** 40 ms: longer ones would cost frames at 25 per second. */
    int nMaxExposure = 400;
    /** Brightness that the picture's median shall have; the middle leaves room for the spot. */
    int nTargetMedian = 128;
    /** Largest factor between two suggestions: a clipped picture doesn't tell how far to go. */
    double dMaxExposureStep = 4.0;

    // Pictures.

    /** Larger pictures are refused, in pixels per side; bounds the memory a picture takes. */
    int nMaxSide = 4096;
    /** JPEG quality of corrected pictures, 1 to 100. */
    int nJpegQuality = 90;
};
