// Pictures of the virtual camera's scene, drawn on demand for tests of the plug-in.
#pragma once

#include <cmath>
#include <cstdint>

#include "Burner.h"
#include "FrameProcessor.h"
#include "SceneFile.h"
#include "SceneGeometry.h"
#include "SceneSource.h"

class SceneCamera
{
public:
    explicit SceneCamera(double dK1 = 0, uint32_t u32Width = 640, uint32_t u32Height = 480,
                         int nQuality = 90)
        : m_source(m_scene, dK1, nQuality), m_geometry(u32Width, u32Height, dK1)
    {
        m_request.choice.u32Width = u32Width;
        m_request.choice.u32Height = u32Height;
        setSpot(0, 0, 0);
        setLaser(true);
    }

    void setSpot(double dXMm, double dYMm, double dZMm)
    {
        m_scene.getState().s32XMicrometre = static_cast<int32_t>(std::lround(dXMm * 1000));
        m_scene.getState().s32YMicrometre = static_cast<int32_t>(std::lround(dYMm * 1000));
        m_scene.getState().s32ZMicrometre = static_cast<int32_t>(std::lround(dZMm * 1000));
    }

    void setLaser(bool bOn)
    {
        m_scene.getState().u32LaserOn = bOn ? 1 : 0;
    }

    /** Burn a straight line as one pass of the beam does, in millimetres of the picture. */
    void burn(double dFromX, double dFromY, double dToX, double dToY)
    {
        const double dSeconds = std::hypot(dToX - dFromX, dToY - dFromY) / 25; // 1500 mm/min
        m_burner.burn({dFromX, dFromY, 0}, {dToX, dToY, 0}, 1000 * dSeconds);
    }

    /** Factor on the scene's light. */
    void setExposure(double dFactor)
    {
        m_request.dExposure = dFactor;
    }

    /** A new picture, valid until the next one. */
    JpegPicture take()
    {
        m_request.u32Number++;
        m_source.draw(m_request, m_picture);
        return {m_picture.vecByte.data(), static_cast<uint32_t>(m_picture.vecByte.size()),
                m_request.choice.u32Width, m_request.choice.u32Height};
    }

    /** What is true of the last picture. */
    const Truth& truth() const
    {
        return m_picture.truth;
    }

    const SceneGeometry& geometry() const
    {
        return m_geometry;
    }

private:
    SceneFile m_scene{""}; // no file: a record of its own
    Burner m_burner{m_scene.getBurnt()};
    SceneSource m_source;
    SceneGeometry m_geometry;
    PictureRequest m_request;
    Picture m_picture;
};
