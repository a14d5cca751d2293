// The overrides of Grbl 1.1: shares of the programmed feed, rapid speed and spindle power.
#pragma once

#include <string>

/** New, all are 100 per cent, as after a reset. */
class GrblOverrides
{
public:
    /** A real-time byte of 0x90 to 0x9D; others do nothing. @return whether a share changed */
    bool take(unsigned char uByte);

    /** Shares, 1 is the whole. */
    double getFeed() const
    {
        return m_nFeed / 100.0;
    }
    double getRapid() const
    {
        return m_nRapid / 100.0;
    }
    /** In per cent. */
    int getSpindle() const
    {
        return m_nSpindle;
    }

    /** "100,100,100": feed, rapid, spindle */
    std::string format() const;

private:
    int m_nFeed = 100; // per cent
    int m_nRapid = 100;
    int m_nSpindle = 100;
};
