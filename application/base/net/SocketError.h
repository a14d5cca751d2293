// The texts that sockets log for errno values.
#pragma once

#include <cstdint>

/** @param u32Level  gets the level to log the text at @return the text for a failed operation */
const char* socketErrorText(int nErrno, uint32_t& u32Level);

/** @return the text for a refused option, null when there is none for this value */
const char* socketOptionErrorText(int nErrno);
