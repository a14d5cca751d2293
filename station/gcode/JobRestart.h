// A job that begins at one of its lines: what has to be said before that line.
#pragma once

#include <cstddef>
#include <string>

/** What becomes of a file that is to begin at a line. */
struct RestartedJob
{
    std::string strText;   // the lines that set it up, then the file from that line on
    size_t uAdded = 0;     // lines of it that set it up
    std::string strReason; // why it cannot begin there; empty: it can
};

/**
 * Sets up, in lines of their own and with the beam off, all that is modal before a line: the place
 * (units, coordinate system, the axes that the file has named), motion, feed, the pilot spot and
 * the like, and the beam and its power as the last of them. Nothing is guessed: a place that the
 * file does not tell, or a shifted origin, is refused. An axis that the file has not named is left
 * where it stands.
 *
 * @param strText  a job that passes its check
 * @param uLine    the line to begin at, from 1
 */
RestartedJob restartJob(const std::string& strText, size_t uLine);

/**
 * The first line that a controller which was stopped may not have carried out, although it had
 * taken it: its queue was lost.
 * @param uThrough  lines that it had taken
 */
size_t findUnsure(const std::string& strText, size_t uThrough);
