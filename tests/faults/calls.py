"""The calls of service and guard that are made to fail, and the errors that each one's manual page names.

The pages are those of the Linux man-pages project, sections 2 and 3. Where a page refers to another
one (fopen to open and malloc, popen to fork and pipe), that page's errors are given too. All are
tried, also those that the kernel cannot return for what the service passes. Left out are
ERESTARTSYS and ERESTARTNOINTR, which only a tracer sees; what a page names for another function
(EBADF for openat, ECHILD for pclose); and EWOULDBLOCK, which is EAGAIN.
"""

FOREVER = 4294967295  # a position that no run reaches: the rule only counts


SERVICE = "kestrel-server"
VISION = "kestrel-server-vision"  # the service with its vision host up
GUARD = "kestrel-guard"


class Call:
    def __init__(self, name, rule, errors, manual, load="", last=200, program=SERVICE):
        self.name = name
        self.program = program
        self.rule = rule  # how the fault library knows it
        self.errors = errors.split()
        self.manual = manual
        self.last = last  # the last position that is made to fail
        self.load = load  # what the driver does besides its ordinary requests


OPEN = ("EACCES EAGAIN EBUSY EDQUOT EEXIST EFAULT EFBIG EINTR EINVAL EISDIR ELOOP EMFILE "
        "ENAMETOOLONG ENFILE ENODEV ENOENT ENOMEM ENOSPC ENOTDIR ENXIO EOPNOTSUPP EOVERFLOW EPERM "
        "EROFS ETXTBSY")
WRITE = "EAGAIN EBADF EDESTADDRREQ EDQUOT EFAULT EFBIG EINTR EINVAL EIO ENOSPC EPERM EPIPE"

CALLS = (
    Call("socket", "socket", "EACCES EAFNOSUPPORT EINVAL EMFILE ENFILE ENOBUFS ENOMEM "
         "EPROTONOSUPPORT", "socket(2)"),
    Call("accept", "accept4", "EAGAIN EBADF ECONNABORTED EFAULT EHOSTDOWN EHOSTUNREACH EINTR "
         "EINVAL EMFILE ENETDOWN ENETUNREACH ENFILE ENOBUFS ENOMEM ENONET ENOPROTOOPT ENOSR "
         "ENOTSOCK EOPNOTSUPP EPERM EPROTO EPROTONOSUPPORT ESOCKTNOSUPPORT ETIMEDOUT", "accept(2)"),
    Call("epoll_ctl", "epoll_ctl", "EBADF EEXIST EINVAL ELOOP ENOENT ENOMEM ENOSPC EPERM",
         "epoll_ctl(2)"),
    Call("epoll_wait", "epoll_wait", "EBADF EFAULT EINTR EINVAL", "epoll_wait(2)"),
    Call("send", "send", "EACCES EAGAIN EALREADY EBADF ECONNRESET EDESTADDRREQ EFAULT EINTR EINVAL "
         "EISCONN EMSGSIZE ENOBUFS ENOMEM ENOTCONN ENOTSOCK EOPNOTSUPP EPIPE", "send(2)"),
    Call("sendmsg", "sendmsg", "EACCES EAGAIN EALREADY EBADF ECONNRESET EDESTADDRREQ EFAULT EINTR "
         "EINVAL EISCONN EMSGSIZE ENOBUFS ENOMEM ENOTCONN ENOTSOCK EOPNOTSUPP EPIPE", "send(2)"),
    Call("recv", "recv", "EAGAIN EBADF ECONNREFUSED EFAULT EINTR EINVAL ENOMEM ENOTCONN ENOTSOCK",
         "recv(2)"),
    Call("open", "open", OPEN, "open(2)", load="reopen"),
    Call("fopen", "fopen", OPEN, "fopen(3), open(2), malloc(3)"),
    Call("write", "write", WRITE, "write(2)"),
    Call("fwrite", "fwrite", WRITE, "write(2), which is inside", load="log"),
    Call("fflush", "fflush", WRITE, "fflush(3), write(2)", load="log"),
    Call("select", "select", "EBADF EINTR EINVAL ENOMEM", "select(2)"),
    Call("poll", "poll", "EFAULT EINTR EINVAL ENOMEM", "poll(2)"),
    Call("fork", "fork", "EAGAIN ENOMEM ENOSYS", "fork(2)"),
    Call("posix_spawn", "posix_spawn", "EACCES EAGAIN EBUSY EEXIST EINVAL ENOMEM ENOSPC ENOSYS "
         "EOPNOTSUPP EPERM EUSERS", "posix_spawn(3), fork(2), clone(2)"),
    Call("popen", "popen", "EAGAIN EFAULT EINVAL EMFILE ENFILE ENOMEM ENOPKG ENOSYS",
         "popen(3), fork(2), pipe(2)"),
    Call("system", "system", "EAGAIN ECHILD EINTR EINVAL ENOMEM ENOSYS ESRCH",
         "system(3), fork(2), wait(2)"),
    Call("pthread_create", "pthread_create", "EAGAIN EINVAL EPERM", "pthread_create(3)"),
    Call("malloc", "malloc", "ENOMEM", "malloc(3)", last=3000),
    Call("calloc", "calloc", "ENOMEM", "malloc(3)"),
    Call("realloc", "realloc", "ENOMEM", "malloc(3)"),
    Call("operator new", "new", "ENOMEM", "malloc(3), which is inside", last=3000),
)

# The same of the vision host and its plug-in, while they measure and correct pictures. Not at the start,
# where the plug-in's libraries are loaded.
MEASURING = (
    Call("malloc, measuring", "malloc", "ENOMEM", "malloc(3)", "measure", 3000, VISION),
    Call("operator new, measuring", "new", "ENOMEM", "malloc(3), which is inside", "measure", 3000,
         VISION),
)

SOCKET = "EACCES EAFNOSUPPORT EINVAL EMFILE ENFILE ENOBUFS ENOMEM EPROTONOSUPPORT"
PATH = "EACCES EEXIST EIO ELOOP ENAMETOOLONG ENOENT ENOMEM ENOSPC ENOTDIR EPERM EROFS"
TERMINAL = "EBADF EINTR EINVAL ENOTTY EIO"


def guarding(name, errors, manual, last=60):
    """A call of the guard's; its last position is counted from the end of the start."""
    return Call(f"{name}, guard", name, errors, manual, last=last, program=GUARD)


# The guard's, in both of its processes and the one that writes the journal. "close" is left out, which
# closes whatever it returns, and so are "kill" and "waitpid" of a child.
GUARDING = (
    guarding("open", OPEN, "open(2)"),
    guarding("fopen64", OPEN, "fopen(3), open(2), malloc(3)"),
    guarding("read", "EAGAIN EBADF EFAULT EINTR EINVAL EIO EISDIR", "read(2)", 300),
    guarding("write", WRITE, "write(2)", 300),
    guarding("poll", "EFAULT EINTR EINVAL ENOMEM", "poll(2)", 300),
    guarding("pread", "EAGAIN EBADF EFAULT EINTR EINVAL EIO", "pread(2), read(2)"),
    guarding("flock", "EBADF EINTR EINVAL ENOLCK", "flock(2)"),
    guarding("tcgetattr", TERMINAL, "termios(3), tty_ioctl(4)"),
    guarding("tcsetattr", TERMINAL, "termios(3), tty_ioctl(4)"),
    guarding("posix_openpt", "EAGAIN EMFILE ENFILE ENOSPC", "posix_openpt(3)"),
    guarding("grantpt", "EACCES EBADF EINVAL", "grantpt(3)"),
    guarding("unlockpt", "EBADF EINVAL", "unlockpt(3)"),
    guarding("ptsname_r", "ENOTTY ERANGE", "ptsname(3)"),
    guarding("symlink", PATH, "symlink(2)"),
    guarding("rename", PATH, "rename(2)"),
    guarding("unlink", PATH, "unlink(2)"),
    guarding("chmod", PATH, "chmod(2)"),
    guarding("chown", PATH, "chown(2)"),
    guarding("mmap", "EACCES EAGAIN EBADF EINVAL ENFILE ENODEV ENOMEM EPERM", "mmap(2)"),
    guarding("pipe2", "EFAULT EINVAL EMFILE ENFILE", "pipe(2)"),
    guarding("socketpair", "EAFNOSUPPORT EFAULT EMFILE ENFILE EOPNOTSUPP EPROTONOSUPPORT", "socketpair(2)"),
    guarding("fork", "EAGAIN ENOMEM ENOSYS", "fork(2)"),
    guarding("signalfd", "EBADF EINVAL EMFILE ENFILE ENODEV ENOMEM", "signalfd(2)"),
    guarding("socket", SOCKET, "socket(2)"),
    guarding("bind", "EACCES EADDRINUSE EBADF EINVAL ELOOP ENOMEM ENOENT ENOTDIR EROFS", "bind(2)"),
    guarding("listen", "EADDRINUSE EBADF EOPNOTSUPP", "listen(2)"),
    guarding("accept4", "EAGAIN EBADF ECONNABORTED EFAULT EINTR EINVAL EMFILE ENFILE ENOBUFS ENOMEM EPERM EPROTO",
             "accept(2)"),
    guarding("getsockopt", "EBADF EFAULT EINVAL ENOPROTOOPT", "getsockopt(2)"),
    guarding("recvmsg", "EAGAIN EBADF ECONNREFUSED EFAULT EINTR EINVAL ENOMEM ENOTCONN", "recv(2)", 300),
    guarding("send", "EACCES EAGAIN EBADF ECONNRESET EINTR EMSGSIZE ENOBUFS ENOMEM ENOTCONN EPIPE", "send(2)", 300),
    guarding("sendmsg", "EACCES EAGAIN EBADF ECONNRESET EINTR EMSGSIZE ENOBUFS ENOMEM ENOTCONN EPIPE", "send(2)", 300),
    guarding("malloc", "ENOMEM", "malloc(3)", 300),
    guarding("new", "ENOMEM", "malloc(3), which is inside", 1000),
)

# Those that come again and again while the guard works; the others only where it begins anew.
AT_WORK = ("open", "read", "write", "poll", "pread", "flock", "tcsetattr", "posix_openpt", "symlink", "mmap", "accept4",
           "recvmsg", "send", "sendmsg", "malloc", "new")

ALLOCATIONS = ("malloc", "calloc", "realloc", "new")  # rules
