"""What the tests say when something is not as expected."""

import difflib


class Mismatch(Exception):
    pass


def expect(condition, message):
    if not condition:
        raise Mismatch(message)


def expect_equal(what, got, want):
    if got == want:
        return
    if isinstance(want, str):
        lines = difflib.unified_diff(want.splitlines(), got.splitlines(), "want", "got",
                                     lineterm="", n=2)
        raise Mismatch(f"{what}:\n" + "\n".join(list(lines)[:60]))
    raise Mismatch(f"{what}:\nwant {want!r}\ngot  {got!r}")
