"""Files over HTTP, one connection each, beside two floors (StaticFloor.cpp).

The service runs two shell commands at each accept. They are most of what a request costs, so they
have rows of their own, and the floor of the service's rows runs them too; the bare floor shows what
a request would cost without them.
"""

import os
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path[:0] = [os.path.join(HERE, ".."), os.path.join(HERE, "../../tests/system")]
import figures
import harness

SIZES = (20000, 300000)
SECONDS = 3
FOLDER = f"{harness.CARD}/www"
BOUND = "two shell commands at each accept"


class Floor:
    def __init__(self, *options):
        self.process = subprocess.Popen(
            [f"{harness.BUILD}/bench/static/static-floor", str(harness.HTTP_PORT), FOLDER, *options])
        harness.wait_until(lambda: harness.listening(harness.HTTP_PORT), "the floor listens")

    def close(self):
        self.process.terminate()
        self.process.wait()


def run(program, *arguments):
    """The numbers that a measuring program prints."""
    done = subprocess.run([f"{harness.BUILD}/bench/static/{program}", *map(str, arguments)],
                          stdout=subprocess.PIPE, text=True, check=True)
    return [float(text) for text in done.stdout.split()]


def used(pid):
    return figures.cpu_seconds(pid) + figures.children_cpu_seconds(pid)


def measure(program):
    """Requests per second and microseconds of CPU per request, by size; ends the program."""
    results = {}
    try:
        for size in SIZES:
            before = used(program.process.pid)
            requests, seconds = run("static-load", harness.HTTP_PORT, f"/{size}.txt", size, SECONDS)
            cpu = used(program.process.pid) - before
            results[size] = requests / seconds, cpu / requests * 1e6
    finally:
        program.close()
    return results


def main():
    os.makedirs(FOLDER, exist_ok=True)
    for size in SIZES:
        with open(f"{FOLDER}/{size}.txt", "wb") as file:
            file.write(os.urandom(size))
    bare = measure(Floor())
    floor = measure(Floor("commands"))
    service = measure(harness.Server())
    pairs, seconds, cpu = run("accept-commands", SECONDS)

    table = figures.Table()
    for size in SIZES:
        piece = f"file of {size // 1000} KB"
        table.add(piece, "requests per second", service[size][0], "1/s", floor[size][0],
                  better="more", bound=BOUND)
        table.add(piece, "CPU per request, shells included", service[size][1], "us",
                  floor[size][1], bound=BOUND)
        table.add(piece, "requests per second of a bare loop without the commands", bare[size][0],
                  "1/s", better="more")
        table.add(piece, "CPU per request of a bare loop without the commands", bare[size][1], "us")
    table.add("the accept's two shell commands", "time", seconds / pairs * 1e6, "us")
    table.add("the accept's two shell commands", "CPU, shells included", cpu / pairs * 1e6, "us")
    table.print()


if __name__ == "__main__":
    main()
