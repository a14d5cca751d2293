"""Writes what the boards log to the local system log, a program name for each board."""

import asyncio
import logging
import logging.handlers
import signal

from .config import LOG_PORT

RETRY = 1.0  # seconds
CONNECT = 5.0
LINE = 8192  # bytes of a line that are kept


class Syslog(logging.handlers.SysLogHandler):
    """Lines from no program of this machine: the board's name takes the program's place."""

    def __init__(self, address):
        super().__init__(address, facility=self.LOG_LOCAL6)
        self.setFormatter(logging.Formatter("kestrel-board-%(board)s: %(message)s"))


async def follow(board, logger, port=LOG_PORT):
    """Write a board's lines, connecting again whenever the connection ends, until cancelled."""
    up = None
    while True:
        try:
            reader, writer = await asyncio.wait_for(
                asyncio.open_connection(board.host, port, limit=LINE), CONNECT)
        except (OSError, asyncio.TimeoutError) as error:
            if up is not False:
                logging.warning("%s: its log cannot be had: %s", board.name, error or "no answer")
                up = False
            await asyncio.sleep(RETRY)
            continue
        logging.info("%s: its log is followed", board.name)
        up = True
        try:
            await _copy(reader, board, logger)
        except OSError:
            pass
        finally:
            writer.close()
        await asyncio.sleep(RETRY)


async def _copy(reader, board, logger):
    while True:
        try:
            line = await reader.readuntil(b"\n")
        except asyncio.IncompleteReadError as rest:
            line = rest.partial
        except asyncio.LimitOverrunError:
            line = await reader.read(LINE)
        if not line:
            return
        # Nothing that a board sends makes another line, or another field, of the log.
        text = "".join(letter if letter.isprintable() else " " for letter in line.decode("utf-8", "replace"))
        if text.strip():
            logger.info(text.strip(), extra={"board": board.name})


def run(config, address):
    """Until SIGTERM or SIGINT."""
    logger = logging.getLogger("boards")
    logger.propagate = False
    logger.setLevel(logging.INFO)
    logger.addHandler(Syslog(address))

    async def all_boards():
        tasks = [asyncio.create_task(follow(board, logger)) for board in config.boards]
        done = asyncio.Event()
        for number in (signal.SIGTERM, signal.SIGINT):
            asyncio.get_running_loop().add_signal_handler(number, done.set)
        await done.wait()
        for task in tasks:
            task.cancel()

    asyncio.run(all_boards())
