// A responder: what answers a routed request on its connection.
#pragma once

/** Belongs to the connection's request processor; called on the reactor's thread. */
class IClient
{
public:
    IClient() = default;
    IClient(const IClient&) = delete;
    IClient& operator=(const IClient&) = delete;
    virtual ~IClient() = default;

    /** Begin to answer, once. @return 0, or 1 to close the connection */
    virtual int start() = 0;

    enum PROGRESS_E
    {
        PROGRESS_NONE,  // it is not waiting for the connection to drain
        PROGRESS_SENT,  // more of the answer has been queued
        PROGRESS_DONE,  // nothing is left of it
        PROGRESS_FAILED // the rest can't be had: the connection is to be closed
    };

    /** All of the answer that was queued has left. */
    virtual PROGRESS_E goOn()
    {
        return PROGRESS_NONE;
    }

    /**
     * End: afterwards no thread calls the responder any more. Repeating it does no harm.
     * @return 0 or below; above 0 the responder must not be deleted, and sees to its own end
     */
    virtual int stop() = 0;
};
