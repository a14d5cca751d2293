"""The configuration file, checked: kestrel-relay.toml says what each key means."""

import re
from dataclasses import dataclass, field
import tomllib

PATH = "/etc/kestrel-relay/kestrel-relay.toml"
BOARD_PORT = 8329
LOG_PORT = 8001
LOOPBACK = ("127.0.0.1", "::1", "localhost")


class ConfigError(Exception):
    """Says which key is wrong, and how."""


@dataclass(frozen=True)
class Board:
    name: str
    host: str
    port: int
    number: int  # its place in the file, from 1


@dataclass
class Recording:
    boards: tuple = ()
    pictures: str = "jpeg"
    folder: str = "/var/lib/kestrel-relay/recordings"
    minutes: float = 10
    keep_days: float = 7
    keep_gigabytes: float = 100
    keep_free_gigabytes: float = 5


@dataclass
class Config:
    boards: tuple = ()
    rtsp_address: str = "127.0.0.1"
    rtsp_port: int = 8554
    rtsp_user: str = ""
    rtsp_password: str = ""
    h264_kilobits: int = 1500
    web_port: int = 8331  # on 127.0.0.1: nginx is in front of it
    janus_port: int = 8332  # the same
    media_ports: str = "20000-21999"  # UDP, to the viewers' browsers
    janus_media_from: int = 22000  # UDP on 127.0.0.1, one for each board
    recording: Recording = field(default_factory=Recording)


def _board(name, address, number):
    if not re.fullmatch(r"[a-z0-9][a-z0-9-]{0,31}", name):
        raise ConfigError(f"boards.{name}: a name has 1 to 32 small letters, digits and dashes")
    match = isinstance(address, str) and re.fullmatch(r"(\[[0-9a-fA-F:]+\]|[A-Za-z0-9._-]+)(?::(\d{1,5}))?", address)
    port = int(match.group(2) or BOARD_PORT) if match else 0
    if not 0 < port < 65536:
        raise ConfigError(f'boards.{name}: "ADDRESS" or "ADDRESS:PORT" is missing')
    return Board(name, match.group(1).strip("[]"), port, number)


def _fill(target, table, where, names):
    """Take over the keys of a table; each has the type of what it replaces."""
    for key, value in table.items():
        if key not in names:
            raise ConfigError(f"{where}.{key}: there is no such key")
        kind = type(getattr(target, names[key]))
        if kind is float or names[key] in NUMBERS:
            fits = isinstance(value, (int, float)) and not isinstance(value, bool) and value > 0
        elif kind is int:
            fits = isinstance(value, int) and not isinstance(value, bool) and value > 0
        elif kind is tuple:
            fits = isinstance(value, list) and all(isinstance(each, str) for each in value)
        else:
            fits = isinstance(value, str)
        if not fits:
            raise ConfigError(f"{where}.{key}: not a {WORDS[kind]}")
        setattr(target, names[key], tuple(value) if kind is tuple else value)


NUMBERS = ("minutes", "keep_days", "keep_gigabytes", "keep_free_gigabytes")
WORDS = {int: "number above 0", float: "number above 0", str: "text", tuple: "list of texts"}


def _same(*names):
    return {name: name for name in names}


TABLES = {
    "rtsp": {"address": "rtsp_address", "port": "rtsp_port", "user": "rtsp_user", "password": "rtsp_password"},
    "h264": {"kilobits": "h264_kilobits"},
    "ports": _same("web_port", "janus_port", "media_ports", "janus_media_from"),
}


def parse(text):
    try:
        tables = tomllib.loads(text)
    except tomllib.TOMLDecodeError as error:
        raise ConfigError(str(error)) from error
    for key, value in tables.items():
        if key not in ("boards", "recording", *TABLES) or not isinstance(value, dict):
            raise ConfigError(f"{key}: there is no such table")
    config = Config()
    config.boards = tuple(_board(name, address, number) for number, (name, address)
                          in enumerate(tables.get("boards", {}).items(), 1))
    for table, names in TABLES.items():
        _fill(config, tables.get(table, {}), table, names)
    _fill(config.recording, tables.get("recording", {}), "recording", _same(*vars(config.recording)))
    _check(config)
    return config


def _check(config):
    known = {board.name for board in config.boards}
    places = {}
    for board in config.boards:
        other = places.setdefault((board.host, board.port), board.name)
        if other != board.name:
            raise ConfigError(f"boards.{board.name}: {other} has this address; a board has one connection")
    if config.recording.boards == ("*",):
        config.recording.boards = tuple(board.name for board in config.boards)
    for name in config.recording.boards:
        if name not in known:
            raise ConfigError(f"recording.boards: no board has the name {name}")
    if config.recording.pictures not in ("jpeg", "h264"):
        raise ConfigError('recording.pictures: "jpeg" or "h264"')
    if bool(config.rtsp_user) != bool(config.rtsp_password):
        raise ConfigError("rtsp: user and password belong together")
    if config.rtsp_address not in LOOPBACK and not config.rtsp_user:
        raise ConfigError("rtsp.address: other machines may only reach it with rtsp.user and rtsp.password")
    if not re.fullmatch(r"\d{4,5}-\d{4,5}", config.media_ports):
        raise ConfigError('ports.media_ports: "FIRST-LAST"')


def load(path=PATH):
    """Raises ConfigError or OSError."""
    with open(path, encoding="utf-8") as file:
        return parse(file.read())
