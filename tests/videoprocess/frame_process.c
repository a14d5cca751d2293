/* The plug-in's header is plain C. */
#include "frame_process.h"
