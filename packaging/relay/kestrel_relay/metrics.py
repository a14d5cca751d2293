"""The figures for Prometheus."""

from prometheus_client import CollectorRegistry, PlatformCollector, ProcessCollector, generate_latest
from prometheus_client.core import CounterMetricFamily, GaugeMetricFamily

CONTENT_TYPE = "text/plain; version=0.0.4; charset=utf-8"


class Metrics:
    """The text that answers /metrics."""

    def __init__(self, relay):
        self._relay = relay
        self._registry = CollectorRegistry()
        self._registry.register(self)
        ProcessCollector(registry=self._registry)
        PlatformCollector(registry=self._registry)

    def text(self):
        return generate_latest(self._registry)

    def describe(self):
        """Asked for at registration; what is collected has its own names."""
        return []

    def collect(self):
        by_board = {
            "up": GaugeMetricFamily("kestrel_relay_board_up", "1 while the board's pictures come",
                                    labels=["board"]),
            "pictures": CounterMetricFamily("kestrel_relay_pictures", "Pictures that came from the board",
                                            labels=["board"]),
            "bytes": CounterMetricFamily("kestrel_relay_picture_bytes", "Bytes of these pictures",
                                         labels=["board"]),
            "age": GaugeMetricFamily("kestrel_relay_picture_age_seconds",
                                     "Time since the last picture came; missing before the first", labels=["board"]),
            "connections": CounterMetricFamily("kestrel_relay_connections", "Connections made to the board",
                                               labels=["board"]),
            "encoding": GaugeMetricFamily("kestrel_relay_encoding", "1 while H.264 is made", labels=["board"]),
            "recording": GaugeMetricFamily("kestrel_relay_recording", "1 while what is recorded grows on the disk",
                                           labels=["board"]),
            "viewers": GaugeMetricFamily("kestrel_relay_viewers", "Viewers by kind: rtsp, http, webrtc",
                                         labels=["board", "kind"]),
        }
        for name, each in self._relay.boards.items():
            capture = each.capture
            by_board["up"].add_metric([name], int(capture.live))
            by_board["pictures"].add_metric([name], capture.pictures)
            by_board["bytes"].add_metric([name], capture.bytes)
            if capture.last is not None:
                by_board["age"].add_metric([name], capture.age())
            by_board["connections"].add_metric([name], capture.connections)
            by_board["encoding"].add_metric([name], int(each.encoder.running))
            if each.recorder:
                by_board["recording"].add_metric([name], int(each.recorder.writing()))
            for kind, number in each.viewers().items():
                by_board["viewers"].add_metric([name, kind], number)
        yield from by_board.values()
        clean_up = self._relay.clean_up
        yield GaugeMetricFamily("kestrel_relay_recorded_bytes", "Bytes of all recordings", clean_up.bytes)
        yield GaugeMetricFamily("kestrel_relay_recorded_files", "Files of all recordings", clean_up.files)
        yield CounterMetricFamily("kestrel_relay_recordings_removed", "Files removed by the rule", clean_up.removed)
