// Measuring with the vision plug-in, for the operator: what it came to, and on which pictures.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "ArmUse.h"
#include "Mutex.h"
#include "VideoFrame.h"
#include "WorkerPool.h"

/** The vision plug-in, in the working directory. */
inline constexpr const char* PLUGIN = "libframe_process.so";

/**
 * The sequence runs on a thread of its own, "station-measure", because it waits for the camera
 * without limit; the arm is in use until it ends, whoever still waits for it. The pictures of the
 * last one are kept. Any thread.
 */
class ArmMeasure
{
public:
    ArmMeasure() = default;
    ArmMeasure(const ArmMeasure&) = delete;
    ArmMeasure& operator=(const ArmMeasure&) = delete;

    /** One that runs; shared by its thread and whoever waits. */
    class Turn
    {
    public:
        /** docs/api.yaml's Measurement; null while it runs. */
        nlohmann::json getResult() const;

    private:
        friend class ArmMeasure;
        mutable Mutex m_mtx{MUTEX_TYPE_NORMAL}; // guards what follows; innermost
        nlohmann::json m_result GUARDED_BY(m_mtx);
    };

    /** Begin. @param user  of the arm, which is released when the measurement has ended */
    std::shared_ptr<const Turn> begin(ArmUser& user);

    /** The camera's JPEG of the last one. @param strWhich  "spot" or "height"; empty: there is none
     */
    std::string getPicture(const std::string& strWhich) const;

private:
    void measure(Turn& turn);

    mutable Mutex m_mtx{MUTEX_TYPE_NORMAL}; // guards what follows; innermost
    PVENC_FRAME_T m_spotFrame GUARDED_BY(m_mtx);
    PVENC_FRAME_T m_heightFrame GUARDED_BY(m_mtx);
    WorkerPool m_pool{"station-measure", 1, 1}; // the last member: its thread uses the others
};
