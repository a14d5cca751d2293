// Draws the virtual workpiece with the laser spot.
#pragma once

#include <vector>

#include "PictureSource.h"
#include "Raster.h"
#include "SceneFile.h"
#include "SceneGeometry.h"

/**
 * Pictures of the scene that SceneGeometry.h describes, with the spot and the burns that the scene
 * file holds at the moment of drawing. What does not move is drawn once per size and light, and
 * again when more has been burnt.
 */
class SceneSource : public IPictureSource
{
public:
    /** @param scene  borrowed for the object's life  @param dK1  lens, MIN_K1 .. MAX_K1 */
    SceneSource(SceneFile& scene, double dK1, int nQuality);

    void draw(const PictureRequest& request, Picture& picture) override;

private:
    void drawBackground(const VideoFormats::Choice& choice);
    void findCells();
    void drawBurnt();
    void expose(double dExposure, int32_t s32Brightness);
    void drawSpot(Truth& truth);
    void drawWriting(const PictureRequest& request);

    SceneFile& m_scene;
    const double m_dK1;
    const int m_nQuality;
    SceneGeometry m_geometry;
    std::vector<uint8_t> m_vecNew;   // the workpiece before burning, one grey value per pixel
    std::vector<uint8_t> m_vecBase;  // with what is burnt, before light
    std::vector<uint32_t> m_vecCell; // a pixel's first burnt cell; empty until something is burnt
    uint32_t m_u32CellsAcross = 1;   // of a pixel, in both directions
    uint32_t m_u32Changes = 0;       // what m_vecBase shows of BurntState
    uint8_t m_au8Light[256] = {};    // value to value with light
    double m_dExposure = -1;         // that m_background was made with
    int32_t m_s32Brightness = 0;
    Raster m_background;
    Raster m_raster;
};
