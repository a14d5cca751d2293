// Pictures from a folder of JPEG files, in a loop.
#pragma once

#include <string>
#include <vector>

#include "PictureSource.h"

/**
 * The folder's files *.jpg and *.jpeg in the order of their names, read once. As Motion-JPEG each
 * is delivered byte for byte, whatever its size in pixels; for YUYV it is decoded and stretched.
 */
class FolderSource : public IPictureSource
{
public:
    /**
     * Read the folder; files that are no JPEG pictures, or larger than a buffer of 640x480 holds,
     * are named on standard error and left out.
     * @return the number of pictures
     */
    size_t load(const std::string& strFolder);

    /** Needs at least one picture. */
    void draw(const PictureRequest& request, Picture& picture) override;

private:
    std::vector<std::vector<uint8_t>> m_vecFile;
    size_t m_uNext = 0;
};
