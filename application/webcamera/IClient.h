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

    /**
     * End: afterwards no thread calls the responder any more. Repeating it does no harm.
     * @return 0 or below; above 0 the responder must not be deleted, and sees to its own end
     */
    virtual int stop() = 0;
};
