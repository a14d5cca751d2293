// The responder of "/snap": a picture, which is also saved to the SD card.
#pragma once

#include <cstdint>
#include <string>

#include "Event.h"
#include "IClient.h"
#include "VideoConsumer.h"
#include "VideoFrame.h"

class SendQueueTcpClient;

/**
 * Answers on the capture thread, with a frame that finds the connection's send queue empty, and
 * saves the frame as the camera delivered it.
 *
 * Deliberate: it repeats this until the connection ends, one whole answer and one saved file after
 * the other; the client closes when it has its picture.
 */
class HttpSnapClient : public IClient
{
public:
    /**
     * @param client       the connection, which outlives the responder
     * @param strFileName  where to save, relative to the camera's folder; used unchanged. One
     *                     that openBelow() refuses is answered and not saved
     * @param bCorrection  answer the lens-corrected picture
     */
    HttpSnapClient(SendQueueTcpClient& client, int32_t s32Stream, const std::string& strFileName,
                   bool bCorrection);

    /** @return 0, also without a camera */
    int start() override;

    /** Waits for a delivery that is under way. @return 0 */
    int stop() override;

    /**
     * Answer and save, or skip the frame. Capture thread, which waits while the picture is
     * corrected and while it is written to the card; what can't be saved is still answered.
     * A card that is full is logged at level 7.
     * @param pEvent  a VideoFrameEvent; anything else is a std::bad_cast
     * @return 0
     */
    int onSnapFrameEvent(Event* pEvent);

private:
    void answer(const PVENC_FRAME_T& picture);
    void save(const VENC_FRAME_T& frame);

    SendQueueTcpClient& m_client;
    VideoConsumer m_consumer;
    const std::string m_strFileName;
    const bool m_bCorrection;
};
