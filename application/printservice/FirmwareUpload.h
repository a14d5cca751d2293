// The controller's firmware: the image that is kept and the one that is sent.
#pragma once

class PrintLink;

/** Files in the working directory: "firmware.bin" is kept, "pp.bin" sent. Any thread. */
class FirmwareUpload
{
public:
    /** @param link  has to outlive this object */
    explicit FirmwareUpload(PrintLink& link) : m_link(link) {}

    /** Put an image into "firmware.bin". Deliberate: no result is looked at, and it is not sent. */
    void keep(const void* pData, int nLength);

    /**
     * Announce "pp.bin" and send it in raw blocks; what the port does not take of a block is lost.
     * Told on standard output.
     */
    void send();

private:
    PrintLink& m_link;
};
