#!/usr/bin/env python3
"""The layering check: passes on this tree, and fails on the includes it exists to catch."""
import os
import subprocess
import sys
import tempfile
import unittest

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
CHECK = os.path.join(REPO, "scripts", "check-layers.py")


def run(repo):
    p = subprocess.run([sys.executable, CHECK, repo], capture_output=True, text=True)
    return p.returncode, p.stdout


class CheckLayers(unittest.TestCase):
    def tree(self, files, order="low, mid, high"):
        tmp = tempfile.TemporaryDirectory()
        self.addCleanup(tmp.cleanup)
        files = dict(files)
        if order is not None:
            files.setdefault("README.md", f"# x\n\nModule order (bottom first): {order}\n")
        for rel, text in files.items():
            path = os.path.join(tmp.name, rel)
            os.makedirs(os.path.dirname(path), exist_ok=True)
            with open(path, "w") as fh:
                fh.write(text)
        return tmp.name

    def test_this_tree_is_layered(self):
        rc, out = run(REPO)
        self.assertEqual(rc, 0, out)

    def test_includes_down_and_system_headers_pass(self):
        rc, out = run(self.tree({
            "low/a.h": "#pragma once\n",
            "mid/b.cpp": '#include "mid/b.h"\n#include "low/a.h"\n#include "sys/types.h"\n',
            "mid/b.h": "#pragma once\n",
            "high/c.cpp": '#include "low/a.h"\n#include "mid/b.h"\n',
            "tests/t.cpp": '#include "high/c.h"\n',
        }))
        self.assertEqual(rc, 0, out)

    def test_each_include_that_reaches_up_is_named(self):
        rc, out = run(self.tree({
            "low/a.cpp": '// log\n#include "high/c.h"\n',
            "mid/deep/b.h": '#include "low/a.h"\n#include "high/c.h"\n',
            "high/c.h": "#pragma once\n",
        }))
        self.assertEqual(rc, 1)
        self.assertIn("low/a.cpp:2 -> high/c.h", out)
        self.assertIn(os.path.join("mid", "deep", "b.h") + ":2 -> high/c.h", out)
        self.assertIn("2 includes reach up", out)

    def test_daemon_code_may_not_include_the_simulator_or_tests(self):
        rc, out = run(self.tree({
            "sim/s.h": "#pragma once\n",
            "tests/support/t.h": "#pragma once\n",
            "mid/b.cpp": '#include "sim/s.h"\n#include "tests/support/t.h"\n',
        }))
        self.assertEqual(rc, 1)
        self.assertIn("mid/b.cpp:1 -> sim/s.h", out)
        self.assertIn("mid/b.cpp:2 -> tests/support/t.h", out)

    def test_a_readme_without_the_order_is_an_error(self):
        rc, _ = run(self.tree({"README.md": "# no order here\n", "low/a.h": ""}, order=None))
        self.assertEqual(rc, 2)


if __name__ == "__main__":
    unittest.main()
