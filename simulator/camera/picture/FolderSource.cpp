// Pictures from a folder of JPEG files, in a loop.
#include "FolderSource.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "Jpeg.h"

size_t FolderSource::load(const std::string& strFolder)
{
    std::vector<std::filesystem::path> vecPath;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(strFolder, error)) {
        const std::string strExtension = entry.path().extension().string();
        if (".jpg" == strExtension || ".jpeg" == strExtension) {
            vecPath.push_back(entry.path());
        }
    }
    std::sort(vecPath.begin(), vecPath.end());
    for (const std::filesystem::path& path : vecPath) {
        std::ifstream file(path, std::ios::binary);
        std::vector<uint8_t> vecByte{std::istreambuf_iterator<char>(file), {}};
        Raster raster;
        if (vecByte.size() > VideoFormats::bufferLength({}) || !Jpeg::decode(vecByte, raster)) {
            fprintf(stderr, "%s: left out\n", path.c_str());
            continue;
        }
        m_vecFile.push_back(std::move(vecByte));
    }
    return m_vecFile.size();
}

void FolderSource::draw(const PictureRequest& request, Picture& picture)
{
    const std::vector<uint8_t>& vecFile = m_vecFile[m_uNext];
    m_uNext = (m_uNext + 1) % m_vecFile.size();
    picture.truth = Truth();
    picture.truth.u32Number = request.u32Number;
    if (V4L2_PIX_FMT_MJPEG == request.choice.u32PixelFormat) {
        picture.vecByte = vecFile;
        return;
    }
    Raster file;
    (void)Jpeg::decode(vecFile, file); // load() has seen it succeed
    Raster stretched;
    stretched.resize(request.choice.u32Width, request.choice.u32Height);
    for (uint32_t y = 0; y < stretched.u32Height; ++y) {
        for (uint32_t x = 0; x < stretched.u32Width; ++x) {
            const uint8_t* pFrom = file.pixel(x * file.u32Width / stretched.u32Width,
                                              y * file.u32Height / stretched.u32Height);
            std::copy(pFrom, pFrom + 3, stretched.pixel(x, y));
        }
    }
    stretched.toYuyv(picture.vecByte);
}
