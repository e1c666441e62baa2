"""The README's Python example runs as shown and prints what a reader would expect."""
import contextlib
import io
import pathlib
import re
import unittest

README = pathlib.Path(__file__).resolve().parents[2] / "README.md"


class ReadmeExample(unittest.TestCase):
    def test_the_python_example_prints_its_reference(self):
        blocks = re.findall(r"```python\n(.*?)```", README.read_text(encoding="utf-8"), re.S)
        self.assertEqual(len(blocks), 1)
        output = io.StringIO()
        with contextlib.redirect_stdout(output):
            exec(compile(blocks[0], str(README), "exec"), {"__name__": "readme"})
        self.assertEqual(output.getvalue(), "References:\n1. [Tides](tides.md)\n")


if __name__ == "__main__":
    unittest.main()
