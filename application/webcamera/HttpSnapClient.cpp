// The responder of "/snap": a picture, which is also saved to the SD card.
#include "HttpSnapClient.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include <sys/time.h>
#include <unistd.h>

#include "AnswerBlock.h"
#include "Callback.h"
#include "File.h"
#include "Log.h"
#include "OpenBelow.h"
#include "SendQueueTcpClient.h"
#include "SystemModule.h"
#include "VideoFrameEvent.h"

static const char* const SOURCE_NAME = "webcamera/HttpSnapClient";

static const char* const FOLDER = "/tmp/run/mountd/mmcblk0p1/kestrel-server/camera/";

HttpSnapClient::HttpSnapClient(SendQueueTcpClient& client, int32_t s32Stream,
                               const std::string& strFileName, bool bCorrection)
    : m_client(client), m_strFileName(strFileName), m_bCorrection(bCorrection)
{
    m_consumer.setCallback(
        std::make_unique<CB<HttpSnapClient, int>>(this, &HttpSnapClient::onSnapFrameEvent));
    m_consumer.setStream(s32Stream);
}

int HttpSnapClient::start()
{
    (void)SystemModule::getInstance().registerConsumer(&m_consumer); // without: no frames
    return 0;
}

int HttpSnapClient::stop()
{
    (void)SystemModule::getInstance().cancelConsumer(&m_consumer); // gone in any case
    return 0;
}

int HttpSnapClient::onSnapFrameEvent(Event* pEvent)
{
    auto& event = dynamic_cast<VideoFrameEvent&>(*pEvent);
    if (m_client.getQueueLength() > 0) {
        return 0; // an earlier answer is still waiting
    }
    if (m_bCorrection) {
        PVENC_FRAME_T corrected; // may stay empty
        SystemModule::getInstance().undistort(event.m_frame, corrected);
        answer(corrected);
    } else {
        answer(event.m_frame);
    }
    try {
        save(*event.m_frame.get());
    } catch (const std::bad_alloc&) {
        // No room for the name: not saved, and the capture thread continues.
    }
    return 0;
}

void HttpSnapClient::answer(const PVENC_FRAME_T& picture)
{
    const auto nSize = static_cast<int>((nullptr == picture.get()) ? 0 : picture.get()->u32Size);
    timeval now{};
    gettimeofday(&now, nullptr);
    const SafePointer_C<char> header = makeAnswerBlock(
        1024,
        "HTTP/1.0 200 OK\r\nConnection: close\r\nServer: MJPG-Streamer/0.2\r\nCache-Control: no-store, no-cache, must-revalidate, pre-check=0, post-check=0, max-age=0\r\nPragma: no-cache\r\nExpires: Mon, 3 Jan 2000 12:34:56 GMT\r\nContent-type: image/jpeg\r\nContent-Length: %d\r\nX-Timestamp: %d.%06d\r\nFilename: %s\r\n\r\n",
        nSize, static_cast<int>(now.tv_sec), static_cast<int>(now.tv_usec), m_strFileName.c_str());
    if (nullptr == header.get()) {
        return; // the next frame tries again
    }
    SendQueueTcpClient::Item aItem[2];
    aItem[0].data = header;
    aItem[0].nLength = static_cast<int>(strlen(header.get()));
    if (nullptr != picture.get()) {
        aItem[1].data = picture.castTo<char>();
        aItem[1].nLength = nSize;
    }
    (void)m_client.sendTogether(aItem, (nullptr == picture.get()) ? 1 : 2); // else the next frame
}

void HttpSnapClient::save(const VENC_FRAME_T& frame)
{
    if (0 != File::access(FOLDER, F_OK) || 0 != File::access(FOLDER, W_OK)) {
        return;
    }
    const int nFd = openBelow(FOLDER, m_strFileName.c_str());
    if (nFd < 0) {
        return;
    }
    const std::unique_ptr<FILE, int (*)(FILE*)> file(fdopen(nFd, "wb"), fclose);
    if (nullptr == file) {
        close(nFd);
        return;
    }
    if (0 != ftruncate(nFd, 0)) {
        return;
    }
    const uint32_t u32Size = frame.u32Size;
    // The stream holds back the picture's last bytes: only flushing shows whether they fit.
    if (fwrite(frame.au8Data, 1, u32Size, file.get()) < u32Size || 0 != fflush(file.get())) {
        // The folder's slash and this one: the path has both.
        const std::string strPath = std::string(FOLDER) + "/" + m_strFileName;
        LOG(7, "Save %s : TF-Card has no enough space !!!\n", strPath.c_str()); // sic
    }
}
