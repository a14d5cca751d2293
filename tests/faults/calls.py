"""The calls that are made to fail, and the errors that each one's manual page names.

The pages are those of the Linux man-pages project, sections 2 and 3. Where a page refers to another
one (fopen to open and malloc, popen to fork and pipe), that page's errors are given too. All are
tried, also those that the kernel cannot return for what the service passes. Left out are
ERESTARTSYS and ERESTARTNOINTR, which only a tracer sees; what a page names for another function
(EBADF for openat, ECHILD for pclose); and EWOULDBLOCK, which is EAGAIN.
"""

FOREVER = 4294967295  # a position that no run reaches: the rule only counts


SERVICE = "kestrel-server"
VISION = "kestrel-server-vision"  # the service with its vision host up


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

ALLOCATIONS = ("malloc", "calloc", "realloc", "new")  # rules
