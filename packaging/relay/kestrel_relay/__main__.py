"""kestrel-relay's command line."""

import argparse
import logging
import os
import signal
import socket
import sys

from . import config as configuration


DESCRIPTION = "Shows the pictures of many boards to many viewers, with one connection to each board."


def notify(text):
    """Tell systemd, where it has started this program."""
    address = os.environ.get("NOTIFY_SOCKET")
    if address:
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as client:
            client.connect(address.replace("@", "\0", 1))
            client.sendall(text.encode())


def run(config):
    # Only this command needs GStreamer.
    from .gst import GLib
    from .relay import Relay
    from .web import Web

    loop = GLib.MainLoop()
    relay = Relay(config)
    web = Web(relay, config.web_port)
    for number in (signal.SIGTERM, signal.SIGINT):
        GLib.unix_signal_add(GLib.PRIORITY_HIGH, number, loop.quit)
    relay.start()
    notify("READY=1")

    def alive():
        notify("WATCHDOG=1")
        return True

    GLib.timeout_add(2000, alive)
    logging.info("%d boards", len(config.boards))
    loop.run()
    notify("STOPPING=1")
    web.stop()
    relay.stop()


def main():
    parser = argparse.ArgumentParser(prog="kestrel-relay", description=DESCRIPTION)
    parser.add_argument("--config", metavar="FILE", default=configuration.PATH, help="default: %(default)s")
    commands = parser.add_subparsers(dest="command", required=True, metavar="COMMAND")
    commands.add_parser("run", help="run the relay")
    commands.add_parser("check", help="check the configuration and list the boards")
    janus = commands.add_parser("janus", help="write Janus's configuration into a folder")
    janus.add_argument("folder", metavar="FOLDER")
    logs = commands.add_parser("logs", help="write the boards' logs to the system log")
    logs.add_argument("--socket", metavar="PATH", default="/dev/log", help="default: %(default)s")
    arguments = parser.parse_args()
    logging.basicConfig(level=logging.INFO, format="%(message)s")
    try:
        config = configuration.load(arguments.config)
    except (configuration.ConfigError, OSError) as error:
        print(f"kestrel-relay: {arguments.config}: {error}", file=sys.stderr)
        return 2
    if arguments.command == "check":
        for board in config.boards:
            print(f"{board.name} {board.host} {board.port}")
    elif arguments.command == "janus":
        from . import janus
        janus.write(config, arguments.folder)
    elif arguments.command == "logs":
        from . import logs
        logs.run(config, arguments.socket)
    else:
        try:
            run(config)
        except OSError as error:
            print(f"kestrel-relay: {error}", file=sys.stderr)
            return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
