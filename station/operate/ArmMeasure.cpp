// Measuring with the vision plug-in, for the operator: what it came to, and on which pictures.
#include "ArmMeasure.h"

#include <array>
#include <exception>

#include <sha256.h>

#include "VideoProcessor.h"

using nlohmann::json;

namespace {

json describePicture(const PVENC_FRAME_T& picture)
{
    const VENC_FRAME_T* const pFrame = picture.get();
    if (nullptr == pFrame) {
        return nullptr;
    }
    std::array<char, SHA256_DIGEST_STRING_LENGTH> acSum{};
    const uint32_t u32Size = pFrame->u32Size;
    const uint32_t u32Width = pFrame->u32Width;
    const uint32_t u32Height = pFrame->u32Height;
    const uint64_t u64Time = pFrame->u64TimeStamp;
    return {{"size", u32Size},
            {"width", u32Width},
            {"height", u32Height},
            {"camera_time", u64Time},
            {"sha256", SHA256_Data(pFrame->au8Data, u32Size, acSum.data())}};
}

json describeMeasurement(const Measurement& measurement, bool bMeasured)
{
    const bool bSpot = nullptr != measurement.heightFrame.get();
    json result = {{"result", bMeasured ? "focused"
                              : bSpot   ? "no-height"
                                        : "no-spot"},
                   {"exposure", measurement.s32Exposure},
                   {"spot", nullptr},
                   {"height", nullptr},
                   {"spot_picture", describePicture(measurement.spotFrame)},
                   {"height_picture", describePicture(measurement.heightFrame)}};
    if (bSpot) {
        result["spot"] = {{"x", measurement.fX}, {"y", measurement.fY}};
    }
    if (bMeasured) {
        result["height"] = measurement.fHeight;
    }
    return result;
}

} // namespace

json ArmMeasure::Turn::getResult() const
{
    const MutexGuard guard(m_mtx);
    return m_result;
}

std::shared_ptr<const ArmMeasure::Turn> ArmMeasure::begin(ArmUser& user)
{
    const auto pTurn = std::make_shared<Turn>();
    const bool bBegun = m_pool.add([this, pTurn] { measure(*pTurn); });
    if (bBegun) { // else the station ends, and so does whoever waits
        user.release();
    }
    return pTurn;
}

void ArmMeasure::measure(Turn& turn)
{
    Measurement measurement;
    json result;
    try {
        const bool bMeasured = RET_SUCCESS == VideoProcessor::getInstance().measure(measurement);
        result = describeMeasurement(measurement, bMeasured);
    } catch (const std::exception& error) { // no memory for a picture
        result = error.what();
    }
    {
        const MutexGuard guard(m_mtx);
        m_spotFrame = measurement.spotFrame;
        m_heightFrame = measurement.heightFrame;
    }
    ArmUse::getInstance().end(); // first: whoever is told may go on
    const MutexGuard guard(turn.m_mtx);
    turn.m_result = result;
}

std::string ArmMeasure::getPicture(const std::string& strWhich) const
{
    PVENC_FRAME_T picture;
    {
        const MutexGuard guard(m_mtx);
        picture = ("spot" == strWhich)     ? m_spotFrame
                  : ("height" == strWhich) ? m_heightFrame
                                           : PVENC_FRAME_T();
    }
    const VENC_FRAME_T* const pFrame = picture.get();
    return (nullptr == pFrame)
               ? std::string()
               : std::string(reinterpret_cast<const char*>(pFrame->au8Data), pFrame->u32Size);
}
