// A command of kestrel-arm.
#pragma once

/** Registers itself with the command line when it is made; run() is called if it was given. */
class IArmCommand
{
public:
    IArmCommand() = default;
    IArmCommand(const IArmCommand&) = delete;
    IArmCommand& operator=(const IArmCommand&) = delete;
    virtual ~IArmCommand() = default;

    /** Whether the command line has asked for it. */
    virtual bool isGiven() const = 0;

    /** Prints to standard output, failures to standard error. @return the program's status */
    virtual int run() = 0;
};
