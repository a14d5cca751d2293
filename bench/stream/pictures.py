"""Pictures for the stream benchmark: about 40 KB each, and told apart by their sizes."""

import os

COUNT = 64     # in a loop: at 25 frames per second a size comes back after 2.5 s
SMALLEST = 38000
STEP = 64      # bytes from one picture to the next; 40,016 on average


def segment(marker, content):
    return bytes((0xFF, marker)) + (len(content) + 2).to_bytes(2, "big") + content


def jpeg(size):
    """A grey picture of 8x8, brought to the size by a comment."""
    one_code = bytes((1,)) + bytes(15) + b"\0"  # the code "0" stands for 0
    head = b"\xFF\xD8"
    tail = (segment(0xDB, b"\0" + b"\1" * 64)                      # quantisation
            + segment(0xC0, b"\x08\0\x08\0\x08\x01\x01\x11\0")     # 8 bits, 8x8, one component
            + segment(0xC4, b"\0" + one_code) + segment(0xC4, b"\x10" + one_code)
            + segment(0xDA, b"\x01\x01\0\0\x3F\0") + b"\x3F" + b"\xFF\xD9")
    return head + segment(0xFE, b"k" * (size - len(head) - len(tail) - 4)) + tail


def write(folder):
    for index in range(COUNT):
        size = SMALLEST + index * STEP
        with open(os.path.join(folder, f"{index:02}.jpg"), "wb") as file:
            file.write(jpeg(size))
