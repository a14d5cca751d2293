"""Writes Janus's configuration: one mount point for each board, and nothing else."""

import glob
import os
import secrets

MAIN = """# Written by kestrel-relay.
general: {{
    debug_level = 3
    debug_colors = false
    server_name = "kestrel-relay"
    session_timeout = 30
    no_webrtc_encryption = false
    # Nobody knows it: there is no way in but the pages' own.
    admin_secret = "{secret}"
}}
media: {{
    rtp_port_range = "{ports}"
}}
nat: {{
    ice_lite = true
}}
plugins: {{
    disable = "{plugins}"
}}
transports: {{
    disable = "{transports}"
}}
loggers: {{ disable = "" }}
events: {{ broadcast = false }}
"""
HTTP = """# Written by kestrel-relay.
general: {{
    json = "compact"
    base_path = "/janus"
    http = true
    port = {port}
    ip = "127.0.0.1"
    https = false
}}
admin: {{
    admin_http = false
    admin_https = false
}}
"""
STREAMING = """# Written by kestrel-relay.
general: {{
    # Nobody knows it: mount points are neither made nor removed by viewers.
    admin_key = "{secret}"
}}
"""
MOUNT = """{name}: {{
    type = "rtp"
    id = {id}
    description = "{name}"
    media = (
        {{
            type = "video"
            mid = "v"
            label = "video"
            iface = "127.0.0.1"
            port = {port}
            pt = 96
            codec = "h264"
            fmtp = "profile-level-id=42e01f;packetization-mode=1"
            # A viewer that joins gets the latest key frame at once.
            bufferkf = true
        }}
    )
}}
"""
PLUGIN = "libjanus_streaming.so"
TRANSPORT = "libjanus_http.so"


def others(kind, but):
    """All modules of a kind that Janus would load, but one."""
    paths = glob.glob(f"/usr/lib/*/janus/{kind}/libjanus_*.so") + glob.glob(f"/usr/lib/janus/{kind}/libjanus_*.so")
    return ",".join(sorted({os.path.basename(path) for path in paths} - {but}))


def write(config, folder):
    os.makedirs(folder, exist_ok=True)
    mounts = "".join(MOUNT.format(name=board.name, id=board.number, port=config.janus_media_from + board.number)
                     for board in config.boards)
    files = {
        "janus.jcfg": MAIN.format(secret=secrets.token_hex(16), ports=config.media_ports,
                                  plugins=others("plugins", PLUGIN), transports=others("transports", TRANSPORT)),
        "janus.transport.http.jcfg": HTTP.format(port=config.janus_port),
        "janus.plugin.streaming.jcfg": STREAMING.format(secret=secrets.token_hex(16)) + mounts,
    }
    for name, text in files.items():
        path = os.path.join(folder, name)
        with open(os.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600), "w", encoding="ascii") as file:
            file.write(text)
