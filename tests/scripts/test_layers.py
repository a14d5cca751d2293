"""The check of the libraries' layers, on made-up arrows."""

import os
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../scripts/lib"))
import layers

DRAWING = """
## Layers

Words.

```
kestrel-roof
kestrel_left   kestrel_right
kestrel_ground
```
"""
DRAWN = [["kestrel-roof"], ["kestrel_left", "kestrel_right"], ["kestrel_ground"]]


class Layers(unittest.TestCase):
    def test_drawing_is_read(self):
        self.assertEqual(DRAWN, layers.read_layers(DRAWING))

    def test_downward_is_allowed(self):
        arrows = {("kestrel-roof", "kestrel_ground", "x"), ("kestrel_left", "kestrel_ground", "y")}
        self.assertEqual([], list(layers.upward(DRAWN, arrows)))

    def test_upward_is_not(self):
        self.assertEqual(["kestrel_ground may not know kestrel_left: x"],
                         list(layers.upward(DRAWN, {("kestrel_ground", "kestrel_left", "x")})))

    def test_same_layer_is_not(self):
        self.assertEqual(1, len(list(
            layers.upward(DRAWN, {("kestrel_left", "kestrel_right", "x")}))))

    def test_library_that_is_not_drawn(self):
        self.assertEqual(["not drawn in docs/overview.md: kestrel_new (x)"],
                         list(layers.upward(DRAWN, {("kestrel_new", "kestrel_ground", "x")})))


class Circles(unittest.TestCase):
    def test_none_in_a_tree(self):
        self.assertEqual(set(), layers.circles({("a", "b"), ("a", "c"), ("b", "c")}))

    def test_of_two_and_of_three(self):
        arrows = {("a", "b"), ("b", "a"), ("b", "c"), ("c", "d"), ("d", "e"), ("e", "c")}
        self.assertEqual({frozenset("ab"), frozenset("cde")}, layers.circles(arrows))
