#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""docs/operations.md has each sentence with which a program refuses or fails, so that it is found by searching."""

import pathlib
import re
import unittest

ROOT = pathlib.Path(__file__).parents[2]
MIN_WORDS = 9  # bytes: less is found anywhere
COMPARED = 24  # bytes; behind them the page may say "..."

# What ends in a sentence on standard error, or in a finding.
CALL = re.compile(r"\b(Failure|problem|fail|refuse|runtime_error|ValidationError|end_way)\s*[({]|\breturn \{(?=Exit)")
LITERAL = re.compile(r'"((?:[^"\\]|\\.)*)"')


def read_call(text, begin):
    """From one bracket to that which closes it."""
    depth = 0
    for token in re.finditer(r'"(?:[^"\\]|\\.)*"|[(){}]', text[begin:]):
        depth += {"(": 1, "{": 1, ")": -1, "}": -1}.get(token[0], 0)
        if depth == 0:
            return text[begin:begin + token.end()]
    return text[begin:]


def first_argument(call):
    """A finding's remedy is its second one."""
    depth = 0
    for token in re.finditer(r'"(?:[^"\\]|\\.)*"|[(){},]', call):
        depth += {"(": 1, "{": 1, ")": -1, "}": -1}.get(token[0], 0)
        if token[0] == "," and depth == 1:
            return call[:token.start()]
    return call


def sentences(file):
    """The parts of each sentence that don't vary, without what to do about it."""
    text = file.read_text()
    for found in CALL.finditer(text):
        call = read_call(text, found.end() - 1)
        if found[1] == "problem":
            call = first_argument(call)
        call = re.sub(r'"\s*"', "", call)  # the compiler joins them
        literals = [each.replace('\\"', '"') for each in LITERAL.findall(call) if not each.startswith(";")]
        parts = [part.strip(" ;:,.'") for each in literals for part in each.split(";")]
        parts = [part for part in parts if len(part) >= MIN_WORDS]
        if parts:
            yield text.count("\n", 0, found.start()) + 1, parts


class Texts(unittest.TestCase):
    def test_each_is_in_the_manual_of_operations(self):
        page = re.sub(r"\s+", " ", (ROOT / "docs/operations.md").read_text())
        count = 0
        for file in sorted((ROOT / "apps").rglob("*.cpp")):
            for line, parts in sentences(file):
                count += 1
                with self.subTest(f"{file.relative_to(ROOT)}:{line}"):
                    self.assertTrue(any(part[:COMPARED] in page for part in parts), parts)
        self.assertGreater(count, 80)


if __name__ == "__main__":
    unittest.main()
