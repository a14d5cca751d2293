"""Virtual camera and service for the browser's tests, commanded by lines on standard input; with the argument
"station" the station with guard and controller, too.

camera COMMAND   to the virtual camera, e.g. "camera freeze"; "camera unplug" leaves
                 the service no buffer
server stop      end the service; "server start" starts another one on the same camera
saved NAME       wait until the SD card has a whole picture of this name
station COMMAND  "stop" or "kill" it, "start" it, "freeze" or "thaw" it
plugin PATH      the station's plug-in when it is started anew; without PATH: none
guard COMMAND    "stop" or "start" it
controller LINE  to the virtual controller, e.g. "controller alarm-now 1"
laser 0          wait until the controller's laser is off; "laser 1": on
arm X Y Z        wait until the arm stands there, in millimetres
quit             end all; so does the end of the input

Each line is answered by a line "ok" or "failed REASON".
"""

import os
import shutil
import signal
import sys

FOLDER = os.path.dirname(os.path.abspath(__file__))
sys.path.append(os.path.join(FOLDER, "..", "system"))
sys.path.append(os.path.join(FOLDER, "..", "system", "station"))

from harness import CARD, Board, Server, wait_until
from station import Station


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
    elif line == "station stop":
        board.stop()
    elif line == "station kill":
        board.stop(signal.SIGKILL)
    elif line == "station start":
        board.start()
    elif target == "plugin":
        if os.path.lexists(board.path("libframe_process.so")):
            os.unlink(board.path("libframe_process.so"))
        if command:
            os.symlink(command, board.path("libframe_process.so"))
    elif line in ("station freeze", "station thaw"):
        board.station.send_signal(signal.SIGSTOP if command == "freeze" else signal.SIGCONT)
    elif line == "guard stop":
        board.stop_guard()
    elif line == "guard start":
        board.start_guard()
    elif target == "controller":
        board.control.ask(command)
    elif target == "laser":
        wait_until(lambda: board.controller_state()["laser"] == command, line)
    elif target == "arm":
        place = dict(zip("xyz", map(float, command.split())))
        wait_until(lambda: all(abs(float(board.controller_state()[axis]) - place[axis]) < 0.02 for axis in place),
                   line)
    else:
        raise AssertionError(f"no such command: {line}")


def main():
    shutil.rmtree(CARD, ignore_errors=True)
    shutil.copytree(os.path.join(FOLDER, "..", "..", "www"), f"{CARD}/www")
    slow = ("--fps", "5")  # each picture costs the browser processor time
    with Station(camera_options=slow) if "station" in sys.argv else Board(("--keep", "2000", *slow)) as board:
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
