// The service's measuring loop around the plug-in's operations, with an arm in the virtual scene.
#pragma once

#include <cmath>

#include "FrameProcessor.h"
#include "SceneCamera.h"

/**
 * As the service does it: a picture where the arm was left, an exposure, the position; then the arm
 * is homed and moved in x and y, a second picture, the height; then Z goes to the negated height.
 * The arm's axes point against the picture's, and moves have two decimals.
 */
class ServiceLoop
{
public:
    static constexpr double START_EXPOSURE = 157;

    /** @param camera  borrowed; drawing its first picture takes longest */
    ServiceLoop(SceneCamera& camera, double dFocusZ)
        : m_camera(camera), m_processor(Parameters()), m_dFocusZ(dFocusZ)
    {
    }

    /** @return the first operation's result that was no success */
    FrameProcessor::RESULT_E measure()
    {
        const JpegPicture before = take();
        m_dExposure = m_processor.suggestExposure();
        cv::Point2d found;
        const FrameProcessor::RESULT_E eFound = m_processor.findPosition(before, found);
        if (FrameProcessor::RESULT_OK != eFound) {
            return eFound;
        }
        m_dX = rounded(-found.x);
        m_dY = rounded(-found.y);
        m_dZ = 0;
        m_dHomed = NAN;
        const FrameProcessor::RESULT_E eFocused = m_processor.autoFocus(take(), m_dHomed);
        if (FrameProcessor::RESULT_OK == eFocused) {
            m_dZ = rounded(-m_dHomed);
        }
        return eFocused;
    }

    double offFocus() const
    {
        return m_dZ - m_dFocusZ;
    }

    JpegPicture take()
    {
        m_camera.setSpot(-m_dX, -m_dY, offFocus());
        m_camera.setExposure(m_dExposure / START_EXPOSURE * m_dLight);
        return m_camera.take();
    }

    SceneCamera& m_camera;
    FrameProcessor m_processor;
    double m_dFocusZ;      // the arm's Z at which the laser is in focus
    double m_dX = -5;      // of the arm
    double m_dY = 5;       // of the arm
    double m_dZ = 0;       // of the arm
    double m_dHomed = NAN; // last answer
    double m_dExposure = START_EXPOSURE;
    double m_dLight = 1; // the lamp's, beside the exposure

private:
    static double rounded(double dMillimetre)
    {
        return std::round(dMillimetre * 100) / 100;
    }
};
