// The lens's parameters in a file, as OpenCV's calibration writes them.
#pragma once

#include <string>

#include "Parameters.h"

/**
 * The file is YAML as OpenCV's FileStorage writes it ("%YAML:1.0" in its first line). It holds
 *
 *     image_width, image_height   of the pictures that were calibrated on, in pixels
 *     camera_matrix               3 x 3: focal lengths and centre in those pixels
 *     distortion_coefficients     4 or 5 numbers: k1 k2 p1 p2, and k3
 *     field_width_mm              may be left out: millimetres of the workpiece from the left to
 * the right edge of a corrected picture
 *
 * and anything else, which is ignored. Pictures of other sizes than the calibrated one are taken as
 * the same field of view.
 *
 * No state; any thread. Throws what OpenCV and the allocator throw when memory runs out.
 */
class LensFile
{
public:
    enum RESULT_E
    {
        READ,
        ABSENT,  // there is no such file
        UNUSABLE // it can't be read, isn't of this form, or describes no lens
    };

    /**
     * @param parameters  its lens, and its field's width if the file has one; only changed by READ
     * @param strReason   why the file is UNUSABLE, in a few words
     */
    static RESULT_E read(const std::string& strPath, Parameters& parameters,
                         std::string& strReason);
};
