"""The calls that are made to fail, and the errors that each one's manual page names.

The pages are those of the Linux man-pages project, sections 2 and 3, heading ERRORS. Left out is
what an argument would have to cause that the service never passes, e.g. ENAMETOOLONG for the fixed
path of the camera. Where a page refers to another one (fopen to open, popen to fork and pipe), that
page's errors are given.
"""

FOREVER = 4294967295  # a position that no run reaches: the rule only counts


class Call:
    def __init__(self, name, rule, errors, manual, load=""):
        self.name = name
        self.rule = rule  # how the fault library knows it
        self.errors = errors.split()
        self.manual = manual
        self.load = load  # what the driver does besides its ordinary requests


CALLS = (
    Call("socket", "socket", "EACCES EAFNOSUPPORT EINVAL EMFILE ENFILE ENOBUFS ENOMEM "
         "EPROTONOSUPPORT", "socket(2)"),
    Call("accept", "accept4", "EAGAIN EBADF ECONNABORTED EFAULT EINTR EINVAL EMFILE ENFILE ENOBUFS "
         "ENOMEM ENOTSOCK EOPNOTSUPP EPERM EPROTO", "accept(2)"),
    Call("epoll_ctl", "epoll_ctl", "EBADF EEXIST EINVAL ELOOP ENOENT ENOMEM ENOSPC EPERM",
         "epoll_ctl(2)"),
    Call("epoll_wait", "epoll_wait", "EBADF EFAULT EINTR EINVAL", "epoll_wait(2)"),
    Call("send", "send", "EACCES EAGAIN EALREADY EBADF ECONNRESET EDESTADDRREQ EFAULT EINTR EINVAL "
         "EISCONN EMSGSIZE ENOBUFS ENOMEM ENOTCONN ENOTSOCK EOPNOTSUPP EPIPE", "send(2)"),
    Call("recv", "recv", "EAGAIN EBADF ECONNREFUSED EFAULT EINTR EINVAL ENOMEM ENOTCONN ENOTSOCK",
         "recv(2)"),
    Call("open", "open", "EACCES EBUSY EINTR ELOOP EMFILE ENFILE ENODEV ENOENT ENOMEM ENOTDIR ENXIO "
         "EPERM EROFS", "open(2)", load="reopen"),
    Call("fopen", "fopen", "EACCES EDQUOT EINTR EINVAL EISDIR ELOOP EMFILE ENAMETOOLONG ENFILE "
         "ENOENT ENOMEM ENOSPC ENOTDIR EPERM EROFS", "fopen(3), open(2)"),
    Call("write", "write", "EAGAIN EBADF EDQUOT EFAULT EFBIG EINTR EINVAL EIO ENOSPC EPERM EPIPE",
         "write(2)"),
    Call("fwrite", "fwrite", "EAGAIN EBADF EDQUOT EFBIG EINTR EIO ENOSPC EPERM",
         "write(2), which is inside", load="log"),
    Call("fflush", "fflush", "EAGAIN EBADF EDQUOT EFBIG EINTR EIO ENOSPC EPERM",
         "fflush(3), write(2)", load="log"),
    Call("select", "select", "EBADF EINTR EINVAL ENOMEM", "select(2)"),
    Call("poll", "poll", "EFAULT EINTR EINVAL ENOMEM", "poll(2)"),
    Call("fork", "fork", "EAGAIN ENOMEM ENOSYS", "fork(2)"),
    Call("posix_spawn", "posix_spawn", "EINVAL ENOSYS EAGAIN ENOMEM", "posix_spawn(3)"),
    Call("popen", "popen", "EAGAIN EINVAL EMFILE ENFILE ENOMEM", "popen(3), fork(2), pipe(2)"),
    Call("system", "system", "EAGAIN ECHILD EINTR ENOMEM", "system(3), fork(2), wait(2)"),
    Call("pthread_create", "pthread_create", "EAGAIN EINVAL EPERM", "pthread_create(3)"),
    Call("malloc of 1 KB and more", "malloc>=1024", "ENOMEM", "malloc(3)"),
    Call("calloc of 1 KB and more", "calloc>=1024", "ENOMEM", "malloc(3)"),
)
