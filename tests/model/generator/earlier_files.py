"""What stands in the working directory before the run: output of an earlier one, files with names
that are much like it, and folders in the way."""

from .command_line import value_of
from .dice import Dice

FOLDER = "folder"
LINK = "link"

PLAYLIST_TAILS = (
    "", ".av.m3u8", ".sap.m3u8", ".v.m3u8", ".a.m3u8", ".v.m3u8x", ".av.m3u8.en.vtt.m3u8",
    ".av.m3u8..vtt.m3u8", ".av.m3u8.e_n.vtt.m3u8", ".av.m3u8.eng.vtt", ".bak", ".tmp")
FRAGMENT_TAILS = (
    ".ts", "..ts", ".v..ts", ".00000012.ts", ".v.00000012.ts", ".sap.7.ts.en-US.vtt", ".av.5.ts",
    ".x.00000012.ts", ".00000012.ts.tmp", ".00000003.ts", ".a.1.ts..vtt", ".v.ts", ".a.ts",
    "x.1.ts")


def random_earlier_files(seed, arguments):
    """Contents by name; FOLDER for a folder and LINK for a link that leads nowhere."""
    dice = Dice(seed, "earlier files")
    playlist = value_of(arguments, "m3u8-name", "ch1.m3u8") or "ch1.m3u8"
    fragment = value_of(arguments, "frag-name", "ch1") or "ch1"
    files = {}
    if dice.chance(0.85 if "/" in playlist + fragment else 0.03):
        files["sub"] = FOLDER
    if dice.chance(0.3) or any("clear" in argument for argument in arguments):
        names = [playlist + tail for tail in PLAYLIST_TAILS]
        names += [fragment + tail for tail in FRAGMENT_TAILS]
        names += [".tmp", "README"] + ([] if "/" in fragment else ["." + fragment + ".1.ts"])
        for name in names:
            if dice.chance(0.5) and _can_stand(name, files):
                files[name] = dice.choice([b"old\n", b"", b"x" * 300])
        if "/" not in fragment:
            if dice.chance(0.3):
                files[fragment + ".00000999.ts"] = LINK
            if dice.chance(0.3):
                files[fragment + ".00000998.ts"] = FOLDER
    if dice.chance(0.05) and "/" not in fragment + playlist:
        in_the_way = [fragment + tag + ".%08d.ts" % dice.randrange(6)
                      for tag in ("", ".v", ".a", ".sap")]
        in_the_way += [playlist + tail for tail in ("", ".tmp", ".av.m3u8", ".av.m3u8.tmp")]
        files[dice.choice(in_the_way + [".tmp"])] = FOLDER
    return files


def _can_stand(name, files):
    folder = name.rpartition("/")[0]
    return (not name.startswith("/") and not name.endswith("/") and ".." not in name[:2]
            and (not folder or files.get(folder) == FOLDER))
