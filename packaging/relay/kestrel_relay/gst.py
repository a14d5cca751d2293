"""GStreamer as this program uses it; a module of its own, because the versions are asked for first."""

import gi

gi.require_version("Gst", "1.0")
gi.require_version("GstRtsp", "1.0")
gi.require_version("GstRtspServer", "1.0")
gi.require_version("GstVideo", "1.0")
from gi.repository import Gio, GLib, Gst, GstRtsp, GstRtspServer, GstVideo

Gst.init(None)

__all__ = ["Gio", "GLib", "Gst", "GstRtsp", "GstRtspServer", "GstVideo"]
