"""Runs programs one after another in a container that is made once; each sees nothing of the former."""

import json
import os
import resource
import select
import signal
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
MOST_OUTPUT = 1 << 28
MOST_MEMORY = 4 << 30
TAIL = 200000 # bytes of the output that are told


class Box:
    """The outer side. One thread at a time."""

    def __init__(self, folder):
        """@param folder  the only one that the programs may write to"""
        self.folder = folder
        os.makedirs(folder, exist_ok=True)
        self.process = None

    def run(self, command, environment, seconds, processor):
        """
        @param seconds    until it is ended
        @param processor  seconds of a processor that each process may take
        @return (status, None when the time was over; output's end; seconds that it took)
        """
        order = {"folder": self.folder, "command": command, "environment": environment,
                 "seconds": seconds, "processor": processor}
        answer = self.answered(order) or self.answered(order)
        if not answer:
            raise RuntimeError("the container ended twice")
        answer = json.loads(answer)
        return answer["status"], answer["output"], answer["took"]

    def answered(self, order):
        """@return "" when the container has ended, which the next order makes anew"""
        if self.process is None or self.process.poll() is not None:
            self.process = subprocess.Popen(
                [f"{HERE}/contain", self.folder, sys.executable, "-B", os.path.abspath(__file__)],
                stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, start_new_session=True)
        try:
            self.process.stdin.write(json.dumps(order) + "\n")
            self.process.stdin.flush()
            answer = self.process.stdout.readline()
        except BrokenPipeError:
            answer = ""
        if not answer:
            self.process.kill()
            self.process.communicate()
            self.process = None
        return answer

    def close(self):
        if self.process is not None:
            self.process.stdin.close()
            self.process.wait()
            self.process.stdout.close()


def carryOut(order):
    def limits():
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
        resource.setrlimit(resource.RLIMIT_AS, (MOST_MEMORY, MOST_MEMORY))
        resource.setrlimit(resource.RLIMIT_CPU, (order["processor"], order["processor"] + 5))

    path = f"{order['folder']}/output"
    begun = time.monotonic()
    with open(path, "w+b") as output:
        process = subprocess.Popen(
            [f"{HERE}/contain", "--again", order["folder"], *order["command"]], stdin=subprocess.DEVNULL,
            env={**os.environ, **order["environment"]}, stdout=output, stderr=output,
            start_new_session=True, preexec_fn=limits)
        ended = os.pidfd_open(process.pid)
        while not select.select([ended], [], [], 0.5)[0]:
            if (time.monotonic() - begun > order["seconds"] or
                    os.fstat(output.fileno()).st_size > MOST_OUTPUT):
                break
        os.close(ended)
        status = process.poll()
        took = time.monotonic() - begun
        if status is None:
            os.killpg(process.pid, signal.SIGKILL)
            process.wait()
        size = os.fstat(output.fileno()).st_size
        text = os.pread(output.fileno(), TAIL, max(0, size - TAIL)).decode(errors="replace")
    return {"status": status, "output": text, "took": took}


if __name__ == "__main__":
    for given in sys.stdin:
        print(json.dumps(carryOut(json.loads(given))), flush=True)
