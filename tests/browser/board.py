"""Virtual camera and service for the browser's tests, commanded by lines on standard input.

camera COMMAND   to the virtual camera, e.g. "camera freeze"; "camera unplug" leaves
                 the service no buffer
server stop      end the service; "server start" starts another one on the same camera
saved NAME       wait until the SD card has a whole picture of this name
quit             end all; so does the end of the input

Each line is answered by a line "ok" or "failed REASON".
"""

import os
import shutil
import sys

FOLDER = os.path.dirname(os.path.abspath(__file__))
sys.path.append(os.path.join(FOLDER, "..", "system"))

from harness import CARD, Board, Server


# What the programs print goes elsewhere than the answers.
answers = os.fdopen(os.dup(1), "w", encoding="utf-8")
os.dup2(2, 1)


def answer(text):
    answers.write(text + "\n")
    answers.flush()


def obey(board, line):
    target, _, command = line.partition(" ")
    if line == "camera unplug":
        board.camera.unplug()
    elif target == "camera":
        board.camera.ctl(command)
    elif target == "saved":
        board.wait_for_saved(command)
    elif line == "server stop":
        board.server.close()
    elif line == "server start":
        board.server = Server(camera=board.camera)
    else:
        raise AssertionError(f"no such command: {line}")


def main():
    shutil.rmtree(CARD, ignore_errors=True)
    shutil.copytree(os.path.join(FOLDER, "..", "..", "www"), f"{CARD}/www")
    with Board() as board:
        answer("ok")
        for line in sys.stdin:
            if line.strip() == "quit":
                break
            try:
                obey(board, line.strip())
                answer("ok")
            except Exception as error:  # pylint: disable=broad-except
                answer(f"failed {error}".replace("\n", " "))


main()
