"""The camera and the controller's cable, coming and going at random beside the clients."""

import threading
import time

from harness import wait_until

# Calls between which a camera that is being opened again may go once more.
OPENING_CALLS = ("QUERYCAP", "S_FMT", "REQBUFS", "mmap", "QBUF", "STREAMON")


class Actor(threading.Thread):
    """Does something again and again until it is ended; what it raises fails the run."""

    def __init__(self, rig, tally, chance):
        super().__init__(daemon=True)
        self.rig = rig
        self.tally = tally
        self.chance = chance
        self.stop = threading.Event()

    def run(self):
        try:
            while not self.stop.wait(self.chance.uniform(0.2, 2.0)):
                self.act()
        except Exception as error:  # pylint: disable=broad-except
            self.tally.fail(f"{type(self).__name__}: {error!r}")

    def act(self):
        raise NotImplementedError

    def end(self):
        self.stop.set()
        self.join()


class CameraActor(Actor):
    """Unplugs the camera behind a re-queue, when no buffer is dequeued, and lets it fail."""

    def __init__(self, rig, tally, chance):
        super().__init__(rig, tally, chance)
        self.steady_since = time.monotonic()  # None while disturbed

    def act(self):
        self.steady_since = None
        self.chance.choice((self.unplug, self.unplug, self.unplug_again, self.freeze, self.fail))()
        self.steady_since = time.monotonic()

    def unplug(self):
        self.rig.camera.unplug()
        self.stay_away()
        self.rig.camera.ctl("replug")

    def stay_away(self):
        self.tally.add("camera unplugged")
        self.stop.wait(self.chance.uniform(0.0, 2.5))

    def unplug_again(self):
        """Once more while it is being opened."""
        self.rig.camera.unplug()
        self.stay_away()
        call = self.chance.choice(OPENING_CALLS)
        self.rig.camera.ctl(f"unplug after {call}")
        self.rig.camera.ctl("replug")
        wait_until(lambda: self.rig.camera.status("plugged") == "0", f"the service calls {call}")
        self.stay_away()
        self.rig.camera.ctl("replug")

    def freeze(self):
        self.rig.camera.ctl("freeze")
        self.stop.wait(self.chance.uniform(0.1, 6.0))  # lost after four seconds
        self.rig.camera.ctl("thaw")
        self.tally.add("camera faults")

    def fail(self):
        self.rig.camera.ctl(self.chance.choice((
            "fail DQBUF EIO", "fail DQBUF EINVAL", "bytes 100 5", "bytes overflow 3",
            "fail DQBUF EAGAIN 3")))
        self.tally.add("camera faults")


class CableActor(Actor):
    """Prints jobs; pulls the cable, disturbs the replies, or lets them end."""

    def act(self):
        with self.rig.arm:
            self.print_job()

    def print_job(self):
        lines = self.rig.printed_lines()
        length = self.chance.randrange(20, 2000)
        self.rig.console(f"job {length}")
        wait_until(lambda: self.rig.printed_lines() > lines + 2, "the job's lines reach the arm")
        self.stop.wait(self.chance.uniform(0.0, 2.0))
        self.chance.choice((self.pull, self.pull, self.pull, self.disturb, self.pause,
                            self.nothing))()
        self.tally.add("job lines printed", self.rig.printed_lines() - lines)
        self.tally.add("jobs")

    def pull(self):
        for _ in range(self.chance.choice((1, 1, 3))):
            self.rig.controller.ctl("unplug")
            self.tally.add("cable unplugged")
            self.stop.wait(self.chance.uniform(0.0, 1.5))
            self.rig.controller.ctl("plug")
            self.stop.wait(self.chance.uniform(0.0, 0.3))
        self.rig.console("stop")
        self.rig.open_serial()

    def disturb(self):
        words = self.chance.choice((("garbage", "3"), ("double", "3"), ("half",), ("refuse", "9"),
                                    ("alarm", "1"), ("status", "2"), ("hold",)))
        self.rig.controller.ctl(*words)
        self.stop.wait(self.chance.uniform(0.1, 1.5))
        if words == ("hold",):
            self.rig.controller.ctl("go")
        self.tally.add("replies disturbed")
        self.rig.console("stop")
        self.rig.console("job 10")  # uses up what is left of the disturbance, and unlocks
        wait_until(lambda: self.rig.state()["print"] == 1, "a job continues after a bad reply", 60)
        self.rig.console("stop")
        self.rig.open_serial()  # without the replies that nobody has read

    def pause(self):
        self.rig.console("pause")
        self.stop.wait(self.chance.uniform(0.0, 0.5))
        self.rig.console("resume")
        self.stop.wait(self.chance.uniform(0.0, 0.5))
        self.rig.console("stop")

    def nothing(self):
        self.rig.console("stop")


class MeasureActor(Actor):
    """Measures while no job prints; everyone's answers wait for it, and it for the camera."""

    def act(self):
        with self.rig.arm:
            answer = self.rig.measure()
        self.tally.add("measurements")
        if answer != "0.0000":
            self.tally.add("heights measured")
