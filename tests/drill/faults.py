"""The faults of the drill: how each is made, and from when on it can be seen."""

import dataclasses
import os
import re
import signal
import subprocess
import typing

import burning_board as boards
import verdict

AT_ONCE = "at once"


@dataclasses.dataclass
class Fault:
    name: str
    measured: str  # from when on, for the table
    make: typing.Callable  # (board, chance) -> the run's "injected" and what of "seen" and so on it has
    job: str = "long"
    reset_line: bool = True
    lease: float = 10.0
    loaded: bool = False  # beside eight busy loops
    ends_guard: bool = False
    undo: typing.Callable = None


def kill_service(board, _chance):
    seconds = board.now()
    board.service.kill()
    return {"injected": seconds}


def stop_service(board, _chance):
    seconds = board.now()
    board.service.send_signal(signal.SIGSTOP)
    return {"injected": seconds, "seen": "service silent"}


def kill_worker(board, _chance):
    worker = board.worker()
    seconds = board.now()
    os.kill(worker, signal.SIGKILL)
    return {"injected": seconds}


def stop_worker(board, _chance):
    worker = board.worker()
    seconds = board.now()
    os.kill(worker, signal.SIGSTOP)
    return {"injected": seconds}


def kill_parent(board, _chance):
    seconds = board.now()
    board.guard.kill()
    return {"injected": seconds}


def kill_both(board, _chance):
    """Neither may see the other go. Nobody turns the beam off then but what the service manager runs."""
    worker = board.worker()
    for process in (board.guard.pid, worker):
        os.kill(process, signal.SIGSTOP)
    for process in (board.guard.pid, worker):
        os.kill(process, signal.SIGKILL)
    board.renewing = False
    board.wait(1.0)
    seconds = board.now()
    subprocess.run([boards.GUARD, "--off", board.path("port")], stderr=subprocess.DEVNULL, check=True)
    return {"injected": seconds}


def pull_cable(board, _chance):
    seconds = board.now()
    board.command("unplug")
    return {"injected": seconds, "seen": "unplugged"}


def plug_cable_again(board, chance):
    board.command("unplug")
    board.wait(chance.uniform(0.2, 0.8))
    seconds = board.now()
    board.command("plug")
    return {"injected": seconds, "seen": "plugged"}


def reset_controller(board, _chance):
    seconds = board.now()
    board.command("restart")
    return {"injected": seconds, "seen": "answer", "pattern": "ready|Grbl"}


def mute_controller(board, _chance):
    seconds = board.now()
    board.command("mute")
    return {"injected": seconds, "seen": "reports" if board.language == "grbl" else "lines"}


def raise_alarm(board, _chance):
    seconds = board.now()
    board.command("alarm-now 2")
    return {"injected": seconds, "seen": "answer", "pattern": "(?i)alarm:2"}


def refuse_line(board, _chance):
    seconds = board.now()
    board.command("refuse 20")
    return {"injected": seconds, "seen": "answer", "pattern": "error:20"}


def cut_line(board, chance):
    line = "G1 X-12.345 F600"
    return {"injected": board.write_as_service(line[:chance.randrange(1, len(line))].encode())}


def garbage(chance, length):
    """Bytes that mean nothing to either side: at least one of them is not printable."""
    data = [chance.choice(range(1, 256)) for _ in range(length)]
    data[chance.randrange(length)] = chance.choice(range(128, 256))
    return bytes(data)


def send_garbage(board, chance):
    """No line end in front: it would belong to the line before."""
    data = garbage(chance, chance.randrange(1, 64)).lstrip(b"\n\r")
    return {"injected": board.write_as_service(data)}


def say_garbage(board, chance):
    data = garbage(chance, chance.randrange(1, 64))
    seconds = board.now()
    board.command("say " + "".join(f"\\x{byte:02x}" for byte in data))
    return {"injected": seconds, "seen": "answer", "pattern": re.escape(verdict.escape(data))}


def lose_lease(board, _chance):
    board.renewing = False
    board.renew()
    return {"injected": board.now(), "seen": "lease", "lease_end": board.renewed - board.offset + board.lease}


def wait_for_end(board, _chance):
    return {"injected": board.records[0].seconds, "seen": "end"}


def unmute(board):
    board.command("unmute")


FAULTS = (
    Fault("service killed", AT_ONCE, kill_service),
    Fault("service stopped", "2 s after its last answer", stop_service),
    Fault("worker killed", AT_ONCE, kill_worker, ends_guard=True),
    Fault("worker stopped", AT_ONCE, stop_worker, ends_guard=True),
    Fault("parent killed", AT_ONCE, kill_parent, ends_guard=True),
    Fault("guard killed whole", "the start of `--off`, 1 s later", kill_both, ends_guard=True),
    Fault("cable pulled", "the port's end; by the reset line", pull_cable),
    Fault("cable back", "the port's return; no reset line", plug_cable_again, reset_line=False),
    Fault("controller reset by itself", "its greeting", reset_controller),
    Fault("controller silent", "Grbl: 1 s after the first unanswered `?`; arm: 2 s after what it has is done",
          mute_controller, job="short", undo=unmute),
    Fault("alarm", "its line", raise_alarm),
    Fault("line refused", "its answer", refuse_line),
    Fault("line cut", "its first byte", cut_line),
    Fault("garbage from the service", "its first byte", send_garbage),
    Fault("garbage from the controller", "its answer", say_garbage),
    Fault("lease lost", "the lease's end", lose_lease, lease=0.7),
    Fault("end of the job", "standstill", wait_for_end, job="ending"),
    Fault("service killed, 8 busy loops", AT_ONCE, kill_service, loaded=True),
    Fault("alarm, 8 busy loops", "its line", raise_alarm, loaded=True),
    Fault("line refused, 8 busy loops", "its answer", refuse_line, loaded=True),
)
BY_NAME = {fault.name: fault for fault in FAULTS}
