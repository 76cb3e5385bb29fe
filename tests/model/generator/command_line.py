"""Random command lines."""

from .dice import Dice

# Those that end the run, and some that only look as if they did.
PECULIAR = (
    ("frag-duration", "0"), ("frag-duration", "21"), ("frag-duration", "5s"),
    ("frag-duration", "-2"), ("frag-duration", "4294967300"), ("frag-backlog", "1001"),
    ("frag-backlog", "x"), ("frag-backlog", " +7 "), ("h",), ("help",), ("hel",), ("",), ("sap=1",),
    ("base-url", "http://x"), ("m3u8-name", "/x"), ("m3u8-name", "x/"), ("frag-name", "a..b"),
    ("frag-name", ""), ("anon-sock", "-1"), ("anon-sock", "987"), ("anon-sock", "x"))
WITHOUT_VALUE = ("--frag-name", "--frag-backlog", "--base-url")

FRAG_DURATIONS = (1, 2, 2, 3, 4, 6, 10, 20)
FRAG_BACKLOGS = (1, 1, 2, 3, 5, 12, 1000)
BASE_URLS = ("http://x.example/a b/", "/hls/", "q?x&y/", "")
FRAG_NAMES = ("f", "frag g", "a%20&b", "sub/f", "x?y", "f.v")
M3U8_NAMES = ("m.m3u8", "live list.m3u8", "sub/x.m3u8", "nodir/x.m3u8", "x&y")


def random_arguments(seed):
    dice = Dice(seed, "arguments")
    options = []
    if dice.chance(0.6):
        options.append(("frag-duration", str(dice.choice(FRAG_DURATIONS))))
    if dice.chance(0.6):
        options.append(("frag-backlog", str(dice.choice(FRAG_BACKLOGS))))
    for name, values in (("base-url", BASE_URLS), ("frag-name", FRAG_NAMES),
                         ("m3u8-name", M3U8_NAMES)):
        if dice.chance(0.15):
            options.append((name, dice.choice(values)))
    has_all_renditions = dice.chance(0.15)
    for name, probability in (("start-pat-pmt", 0.35), ("pat-nit-not-first", 0.35),
                              ("no-padding", 0.35), ("no-multilevel", 0.2)):
        if dice.chance(probability):
            options.append((name,))
    for name, probability in (("separate-streams", 0.3), ("sap", 0.3)):
        if has_all_renditions or dice.chance(probability):
            options.append((name,))
    if dice.chance(0.25):
        options.append((dice.choice(["clear-old"] * 5 + ["clear-old-only"]),))
    if dice.chance(0.04):
        options.append(dice.choice(PECULIAR))
    dice.shuffle(options)

    arguments = []
    for name, *value in options:
        arguments += ["-" * dice.choice([2, 2, 2, 1, 3]) + name, *value]
    kind = dice.random()
    if kind < 0.01:
        arguments.append("stray")
    elif kind < 0.02:
        arguments.append(dice.choice(WITHOUT_VALUE))
    elif kind < 0.05:
        arguments.append("--anon-sock")  # without its number: what stands before it is not checked
    return arguments


def value_of(arguments, name, default):
    """Of the last such option."""
    for option, value in zip(arguments, arguments[1:]):
        if option.lstrip("-") == name:
            default = value
    return default


def has_flag(arguments, name):
    return any(argument.lstrip("-") == name for argument in arguments)
