// A file of its own under /tmp that goes with its object.
#pragma once

#include "File.h"

/** Use create() in place of open(). */
class TempFile : public File
{
public:
    /** Removes the file by its path (a failure is printed, see File::remove), then closes it. */
    ~TempFile() override;

    /**
     * Make "/tmp/temp_file." and six characters, and open it. A file made before is removed.
     * @param nFlags  FILE_FLAG_E mask
     * @return 0 or -1
     */
    int create(int nFlags);
};
