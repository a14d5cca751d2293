"""The RTSP server: /NAME with the board's JPEG as it is, /NAME/h264 encoded on demand."""

import logging
import threading
import time

from .feed import SOURCE
from .gst import GLib, GstRtsp, GstRtspServer

JPEG = "( " + SOURCE.format(3) + " ! rtpjpegpay name=pay0 pt=26 )"
H264 = "( " + SOURCE.format(30) + " ! rtph264pay name=pay0 pt=96 config-interval=-1 )"
THREADS = 4  # that answer requests: who asks first for a picture waits for one
GOODBYE = 300  # ms in which viewers over UDP get the stream's end, before their connection closes


class Mount(GstRtspServer.RTSPMediaFactory):
    """One form of one board's pictures. All its viewers share one medium, which is there while they are."""

    def __init__(self, text, feed, encoder=None):
        super().__init__()
        self.set_shared(True)
        self.set_launch(text)
        self._feed = feed
        self._encoder = encoder
        self.connect("media-configure", self._configured)

    def _configured(self, _factory, media):
        source = media.get_element().get_by_name("source")
        media.connect("unprepared", self._gone, source)
        self._feed.add(source)
        if self._encoder:
            self._encoder.use(source)

    def _gone(self, _media, source):
        self._feed.remove(source)
        if self._encoder:
            self._encoder.release(source)


class Mounts:
    """All boards' mounts, each there only while its board's pictures come."""

    def __init__(self, config):
        self._server = GstRtspServer.RTSPServer()
        self._server.set_address(config.rtsp_address)
        self._server.set_service(str(config.rtsp_port))
        self._server.get_thread_pool().set_max_threads(THREADS)
        self._user = config.rtsp_user
        if self._user:
            self._server.set_auth(self._auth(config))
        self._lock = threading.Lock()  # guards the viewers
        self._viewers = {}  # by client: monotonic time of the connection, path without slash
        self._server.connect("client-connected", self._connected)
        if self._server.attach(None) == 0:
            raise OSError(f"RTSP: port {config.rtsp_port} of {config.rtsp_address} cannot be had")

    def _auth(self, config):
        auth = GstRtspServer.RTSPAuth()
        token = GstRtspServer.RTSPToken()
        token.set_string(GstRtspServer.RTSP_TOKEN_MEDIA_FACTORY_ROLE, config.rtsp_user)
        auth.set_supported_methods(GstRtsp.RTSPAuthMethod.DIGEST)
        auth.add_digest(config.rtsp_user, config.rtsp_password, token)
        return auth

    def open(self, name, pictures, encoder):
        """The board's pictures come."""
        self._add(name, Mount(JPEG, pictures))
        self._add(f"{name}/h264", Mount(H264, encoder.feed, encoder))

    def renew_h264(self, name, encoder):
        """The encoder's feed has ended: its viewers are dismissed, and the next ones begin anew."""
        self._add(f"{name}/h264", Mount(H264, encoder.feed, encoder))
        GLib.timeout_add(GOODBYE, self._dismiss, f"{name}/h264", time.monotonic())

    def close(self, name):
        """They don't any more: nobody gets in, and nobody stays; the feeds have ended already."""
        points = self._server.get_mount_points()
        points.remove_factory(f"/{name}")
        points.remove_factory(f"/{name}/h264")
        GLib.timeout_add(GOODBYE, self._dismiss, name, time.monotonic())

    def viewers(self, name):
        with self._lock:
            return sum(path.split("/")[0] == name for _, path in self._viewers.values())

    def _add(self, path, mount):
        """In place of the one that is there."""
        if self._user:
            permissions = GstRtspServer.RTSPPermissions.new()
            for right in (GstRtspServer.RTSP_PERM_MEDIA_FACTORY_ACCESS,
                          GstRtspServer.RTSP_PERM_MEDIA_FACTORY_CONSTRUCT):
                permissions.add_permission_for_role(self._user, right, True)
            mount.set_permissions(permissions)
        self._server.get_mount_points().add_factory(f"/{path}", mount)

    def _dismiss(self, mount, ended):
        """Those that connected before."""
        with self._lock:
            those = [client for client, (since, path) in self._viewers.items()
                     if since <= ended and f"{path}/".startswith(f"{mount}/")]
        for client in those:
            client.close()
        if those:
            logging.info("%s: %d RTSP viewers dismissed", mount, len(those))
        return False

    def _connected(self, _server, client):
        client.connect("setup-request", self._asked, time.monotonic())
        client.connect("closed", self._left)

    def _asked(self, client, context, since):
        with self._lock:
            self._viewers[client] = since, context.uri.abspath.strip("/")

    def _left(self, client):
        with self._lock:
            self._viewers.pop(client, None)
