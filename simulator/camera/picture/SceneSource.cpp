// Draws the virtual workpiece with the laser spot.
#include "SceneSource.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>

#include "Jpeg.h"

namespace {

const double TABLE = 95;
const double PLATE = 150;
const double LINE = 70;
const int GRAIN = 6;
const int CHAR = 20;
const double BEAM_CORE = 3; // that much narrower than the spot
const uint32_t NO_CELL = UINT32_MAX;
const double SPOT_REACH = 4.5; // in sigma: beyond, the weight is below a thousandth of a grey value

/** A pixel's grain, always the same: -GRAIN .. GRAIN. */
int grain(uint32_t u32X, uint32_t u32Y)
{
    uint32_t u32Hash = u32X * 0x9e3779b1u ^ u32Y * 0x85ebca77u;
    u32Hash = (u32Hash ^ u32Hash >> 15) * 0x2c1b3c6du;
    u32Hash ^= u32Hash >> 13;
    return static_cast<int>(u32Hash % (2 * GRAIN + 1)) - GRAIN;
}

/**
 * How much of a pixel lies within dHalfWidth of an edge-free strip's middle at distance dDistance.
 */
double coverage(double dDistance, double dHalfWidth, double dPixel)
{
    return std::clamp((dHalfWidth - dDistance) / dPixel + 0.5, 0.0, 1.0);
}

double toGrid(double dMillimetre)
{
    const double dLine = std::round(dMillimetre / SceneGeometry::GRID_MM) * SceneGeometry::GRID_MM;
    return std::fabs(dMillimetre - dLine);
}

double greyAt(const SceneGeometry::Point& at, double dPixel)
{
    const double dPlate = coverage(std::fabs(at.dX), SceneGeometry::PLATE_X_MM, dPixel) *
                          coverage(std::fabs(at.dY), SceneGeometry::PLATE_Y_MM, dPixel);
    const double dLine =
        coverage(std::min(toGrid(at.dX), toGrid(at.dY)), SceneGeometry::LINE_MM / 2, dPixel);
    return TABLE + dPlate * (PLATE - TABLE + dLine * (LINE - PLATE));
}

double fromMicrometre(int32_t s32Micrometre)
{
    return s32Micrometre / 1000.0;
}

} // namespace

SceneSource::SceneSource(SceneFile& scene, double dK1, int nQuality)
    : m_scene(scene), m_dK1(dK1), m_nQuality(nQuality), m_geometry(640, 480, dK1)
{
}

void SceneSource::drawBackground(const VideoFormats::Choice& choice)
{
    m_geometry = SceneGeometry(choice.u32Width, choice.u32Height, m_dK1);
    m_background.resize(choice.u32Width, choice.u32Height);
    m_vecNew.resize(static_cast<size_t>(choice.u32Width) * choice.u32Height);
    m_vecCell.clear();
    m_u32Changes = 0;
    m_dExposure = -1;
    const double dPixel = 1 / m_geometry.getPixelsPerMillimetre();
    uint8_t* pNew = m_vecNew.data();
    for (uint32_t y = 0; y < choice.u32Height; ++y) {
        for (uint32_t x = 0; x < choice.u32Width; ++x) {
            const SceneGeometry::Point pixel{static_cast<double>(x), static_cast<double>(y)};
            const double dGrey = greyAt(m_geometry.toMillimetre(pixel), dPixel);
            *pNew++ = static_cast<uint8_t>(std::lround(dGrey + grain(x, y)));
        }
    }
    m_vecBase = m_vecNew;
}

void SceneSource::findCells()
{
    const double dPixel = 1 / m_geometry.getPixelsPerMillimetre();
    const long nAcross = std::max(1L, std::lround(dPixel / BurntState::CELL_MM));
    m_u32CellsAcross = static_cast<uint32_t>(nAcross);
    m_vecCell.reserve(m_vecNew.size());
    const auto first = [&](double dMillimetre, size_t uCells) {
        const double dCell = (dMillimetre - dPixel / 2) / BurntState::CELL_MM;
        return std::lround(dCell) + static_cast<long>(uCells / 2);
    };
    for (uint32_t y = 0; y < m_background.u32Height; ++y) {
        for (uint32_t x = 0; x < m_background.u32Width; ++x) {
            const SceneGeometry::Point at =
                m_geometry.toMillimetre({static_cast<double>(x), static_cast<double>(y)});
            const long nColumn = first(at.dX, BurntState::COLUMNS);
            const long nRow = first(at.dY, BurntState::ROWS);
            const bool bWithin = nColumn >= 0 && nRow >= 0 &&
                                 nColumn + nAcross <= static_cast<long>(BurntState::COLUMNS) &&
                                 nRow + nAcross <= static_cast<long>(BurntState::ROWS);
            const long nCell = nRow * static_cast<long>(BurntState::COLUMNS) + nColumn;
            m_vecCell.push_back(bWithin ? static_cast<uint32_t>(nCell) : NO_CELL);
        }
    }
}

void SceneSource::drawBurnt()
{
    const BurntState& burnt = m_scene.getBurnt();
    const uint32_t u32Changes = burnt.u32Changes.load(std::memory_order_acquire);
    if (u32Changes == m_u32Changes) {
        return;
    }
    m_u32Changes = u32Changes;
    m_dExposure = -1;
    if (m_vecCell.empty()) {
        findCells();
    }
    const float fCells = static_cast<float>(m_u32CellsAcross * m_u32CellsAcross);
    m_vecBase = m_vecNew;
    for (size_t i = 0; i < m_vecCell.size(); ++i) {
        float fShare = 0;
        for (uint32_t y = 0; NO_CELL != m_vecCell[i] && y < m_u32CellsAcross; ++y) {
            for (uint32_t x = 0; x < m_u32CellsAcross; ++x) {
                const size_t uCell = m_vecCell[i] + y * BurntState::COLUMNS + x;
                fShare += burnt.afShare[uCell].load(std::memory_order_relaxed);
            }
        }
        if (fShare > 0) { // of few pixels, and rounding is what costs most
            const float fNew = m_vecNew[i];
            const float fBase = fNew + fShare / fCells * (CHAR - fNew);
            m_vecBase[i] = static_cast<uint8_t>(std::lround(fBase));
        }
    }
}

void SceneSource::expose(double dExposure, int32_t s32Brightness)
{
    m_dExposure = dExposure;
    m_s32Brightness = s32Brightness;
    for (int i = 0; i < 256; ++i) {
        const double dLit = std::clamp(i * dExposure + 2 * s32Brightness, 0.0, 255.0);
        m_au8Light[i] = static_cast<uint8_t>(std::lround(dLit));
    }
    uint8_t* pOut = m_background.vecByte.data();
    for (const uint8_t u8Base : m_vecBase) {
        const uint8_t u8Lit = m_au8Light[u8Base];
        *pOut++ = u8Lit;
        *pOut++ = u8Lit;
        *pOut++ = u8Lit;
    }
}

void SceneSource::drawSpot(Truth& truth)
{
    SceneState& state = m_scene.getState();
    const uint32_t u32Light = state.u32LaserOn.load(std::memory_order_relaxed);
    truth.bLaserOn = LIGHT_OFF != u32Light;
    truth.dXMillimetre = fromMicrometre(state.s32XMicrometre.load(std::memory_order_relaxed));
    truth.dYMillimetre = fromMicrometre(state.s32YMicrometre.load(std::memory_order_relaxed));
    truth.dZMillimetre = fromMicrometre(state.s32ZMicrometre.load(std::memory_order_relaxed));
    const SceneGeometry::Point centre =
        m_geometry.toPixel({truth.dXMillimetre, truth.dYMillimetre});
    const double dSigma = SceneGeometry::sigmaMillimetre(truth.dZMillimetre);
    truth.dX = centre.dX;
    truth.dY = centre.dY;
    truth.dSigma = dSigma * m_geometry.getPixelsPerMillimetre();
    const double dWidth = m_raster.u32Width;
    const double dHeight = m_raster.u32Height;
    truth.bInPicture = truth.bLaserOn && centre.dX >= 0 && centre.dY >= 0 &&
                       centre.dX <= dWidth - 1 && centre.dY <= dHeight - 1;
    if (!truth.bLaserOn) {
        return;
    }

    // The lens stretches by at most 1 + 3 k1 r^2, with r^2 below 1.6 within the picture.
    const double dReach = SPOT_REACH * truth.dSigma * (1 + 4.8 * std::max(m_dK1, 0.0));
    const double dPeak = SceneGeometry::peak(truth.dZMillimetre);
    const int nLeft = static_cast<int>(std::clamp(centre.dX - dReach, 0.0, dWidth));
    const int nRight = static_cast<int>(std::clamp(centre.dX + dReach + 1, 0.0, dWidth));
    const int nTop = static_cast<int>(std::clamp(centre.dY - dReach, 0.0, dHeight));
    const int nBottom = static_cast<int>(std::clamp(centre.dY + dReach + 1, 0.0, dHeight));
    for (int y = nTop; y < nBottom; ++y) {
        for (int x = nLeft; x < nRight; ++x) {
            const SceneGeometry::Point at =
                m_geometry.toMillimetre({static_cast<double>(x), static_cast<double>(y)});
            const double dX = at.dX - truth.dXMillimetre;
            const double dY = at.dY - truth.dYMillimetre;
            const double dSquares = (dX * dX + dY * dY) / (2 * dSigma * dSigma);
            const double dWeight = dPeak * std::exp(-dSquares);
            const double dCore =
                LIGHT_BEAM == u32Light ? dPeak * std::exp(-dSquares * BEAM_CORE * BEAM_CORE) : 0;
            const size_t uAt = static_cast<size_t>(y) * m_raster.u32Width + static_cast<size_t>(x);
            const double dBase = m_vecBase[uAt];
            const auto mix = [&](int nColour) {
                const double dSpot = dWeight * nColour + (1 - dWeight) * dBase;
                return m_au8Light[std::lround(dSpot + dCore * (255 - dSpot))];
            };
            uint8_t* pPixel = m_raster.vecByte.data() + uAt * 3;
            pPixel[0] = mix(SceneGeometry::SPOT_RED);
            pPixel[1] = mix(SceneGeometry::SPOT_GREEN);
            pPixel[2] = pPixel[1];
        }
    }
}

void SceneSource::drawWriting(const PictureRequest& request)
{
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    ::localtime_r(&now.tv_sec, &local);
    char acText[64];
    snprintf(acText, sizeof(acText), "#%06u %02d:%02d:%02d.%03ld", request.u32Number, local.tm_hour,
             local.tm_min, local.tm_sec, static_cast<long>(now.tv_nsec / 1000000));

    const int nScale = static_cast<int>(m_raster.u32Width / 640);
    const int nWidth = static_cast<int>(m_raster.u32Width);
    const int nHeight = static_cast<int>(m_raster.u32Height);
    m_raster.box(8, 8, 248 * nScale, 20 * nScale, 0);
    m_raster.write(8 + 4 * nScale, 8 + 3 * nScale, 2 * nScale, acText);
    const int nRun = static_cast<int>(request.u32Number % 160) * 4 * nScale;
    m_raster.box(nRun % nWidth, nHeight - 6 * nScale, 16 * nScale, 6 * nScale, 255);
}

void SceneSource::draw(const PictureRequest& request, Picture& picture)
{
    const VideoFormats::Choice& choice = request.choice;
    if (choice.u32Width != m_background.u32Width || choice.u32Height != m_background.u32Height) {
        drawBackground(choice);
    }
    drawBurnt();
    if (request.dExposure != m_dExposure || request.s32Brightness != m_s32Brightness) {
        expose(request.dExposure, request.s32Brightness);
    }
    m_raster = m_background;
    picture.truth = Truth();
    picture.truth.u32Number = request.u32Number;
    drawSpot(picture.truth);
    drawWriting(request);
    if (V4L2_PIX_FMT_MJPEG == choice.u32PixelFormat) {
        Jpeg::encode(m_raster, m_nQuality, picture.vecByte);
    } else {
        m_raster.toYuyv(picture.vecByte);
    }
}
