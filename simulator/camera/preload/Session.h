// The open cameras of this process and their calls to kestrel-camera.
#pragma once

#include <stdbool.h>
#include <stddef.h>
#include <sys/stat.h>
#include <sys/types.h>

#include "CameraProtocol.h"

/*
 * The C library's own functions of the names that this library replaces. Any thread; the first use
 * of each looks its symbol up.
 */
int realOpen(const char* pPath, int nFlags, mode_t mode);
int realClose(int nFd);
void* realMmap(void* pAddress, size_t uLength, int nProt, int nFlags, int nFd, off_t nOffset);
int realMunmap(void* pAddress, size_t uLength);
int realFstat(int nFd, struct stat* pStatus);

/* Of a file below the camera's directory; a socket's path holds 108, unix(7). */
#define CAMERA_MAX_PATH 160

/* One open of the camera. Its place in memory is fixed; free ones are used again. */
struct OpenCamera
{
    int32_t s32FdPlusOne; // 0: free
    pid_t pid;            // that opened it
    ino_t inode;          // of the connection: a descriptor closed behind our back is not ours
    uint32_t u32Session;
    uint32_t u32Number; // of the node
    struct CameraPage* pPage;
    char acDir[CAMERA_MAX_PATH];
};

/* Whether this process is to have a camera: CAMERA_DIR_VARIABLE is set and not empty. */
bool cameraWanted(void);

/* Build the path of a file below the camera's directory; false without one or when it is cut. */
bool cameraPath(char* pPath, size_t uSize, const char* pName);

/*
 * Ask for the node of that number. One short connection.
 * @return 0 or an error number; ENOENT also when kestrel-camera does not run
 */
int cameraStat(uint32_t u32Number, uint32_t* pKind);

/*
 * Open the camera at the node of that number: the flags are those of open(2). The descriptor is a
 * connection; besides it only one shared page is mapped.
 * @return the descriptor, or -1 with errno
 */
int cameraOpen(uint32_t u32Number, int nFlags);

/*
 * The open camera behind a descriptor, or a null pointer for any other descriptor. Costs one load
 * while no camera is open. Errno stays.
 */
struct OpenCamera* cameraOf(int nFd);

/*
 * Make one call with pRecord, which is filled when the call succeeds (or with bAlwaysBack). Blocks
 * until kestrel-camera has answered and is no cancellation point, like an ioctl. Any thread.
 * @param pWait  set when the call is to be made again once the descriptor is readable; may be null
 * @return 0 or an error number; ENODEV when kestrel-camera has ended
 */
int cameraCall(struct OpenCamera* pSession, enum CAMERA_CALL_E eCall, void* pRecord, size_t uSize,
               bool bAlwaysBack, bool* pWait);

/*
 * Make the call of an ioctl(2) on nFd, the session's descriptor.
 * @return 0 or an error number; ENOTTY for an ioctl the driver does not know
 */
int cameraIoctl(struct OpenCamera* pSession, int nFd, uint32_t u32Request, void* pArgument);

/*
 * End the session of a descriptor of this process, then close it; a forked child only closes. As
 * with close(2) on Linux, the descriptor is closed even when it fails.
 */
int cameraClose(struct OpenCamera* pSession, int nFd);

/* mmap(2) and munmap(2) of the camera's buffers; MAP_FAILED or -1 with errno. */
void* cameraMmap(struct OpenCamera* pSession, void* pAddress, size_t uLength, int nProt, int nFlags,
                 int64_t s64Offset);
/*
 * Report the unmapping when pAddress is where a buffer of the camera is mapped.
 * @return 0, or the error number for munmap(2) to fail with
 */
int cameraMunmap(void* pAddress);

/* Stop reporting munmap for its buffers; they stay mapped. */
void cameraForgetMappings(const struct OpenCamera* pSession);
