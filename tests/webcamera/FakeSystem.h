// Stands for the device side: hands out frames, measures and corrections as a test wants them.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "VideoFrame.h"

/**
 * What SystemModule's operations do in a program that links FakeSystem.cpp. Consumers are called as
 * the capture thread calls them: one after the other, with the list locked.
 */
namespace FakeSystem {

/** No consumers, a measure of 0, corrections that leave the frame as it is. */
void reset();

size_t consumerCount();

/** The streams of the consumers, in order of registration, e.g. "0 0 ". */
std::string streams();

/** Hand a frame to every consumer, on the caller's thread. */
void deliver(PVENC_FRAME_T& frame);

/** Hand this frame to every consumer that registers, before the registration returns. */
void deliverAtOnce(const PVENC_FRAME_T& frame);

/** What measure() writes, and how often it was called. */
void setMeasure(float fMeasure);
int measureCount();

using Correction = std::function<void(PVENC_FRAME_T& in, PVENC_FRAME_T& out)>;
void setCorrection(const Correction& correction);

} // namespace FakeSystem

/** A frame as the capture side makes it; the payload counts up from uFirst. */
PVENC_FRAME_T makeFrame(uint32_t u32Size, uint32_t u32Format = 28, uint32_t u32Width = 640,
                        uint32_t u32Height = 480, unsigned uFirst = 0);

/** The payload of makeFrame. */
std::string payload(uint32_t u32Size, unsigned uFirst = 0);
