"""The command line: its options, their checks and the usage text. Arguments are bytes, and integers
read as strtol does and are cut to 32 bits."""

import re
from dataclasses import dataclass

USAGE = b"""\
vorn_mpegts_to_hls [options]
MPEG-TS to HLS conversion utility.
 --frag-duration <n>              HLS fragment duration in seconds
 --frag-backlog <n>               How many fragments to keep before discarding at any time
 --frag-name <name>               HLS fragment name base (name_%d.ts)
 --m3u8-name <name>               M3U8 file name
 --base-url <url>                 Base URL to append to fragments in M3U8
 --clear-old                      Clear previous M3U8 and HLS fragments before starting
 --clear-old-only                 Same as --clear-old, but exit after clearing
 --no-padding                     Omit padding packets (variable-bitrate MPEG-TS)
 --start-pat-pmt                  Filter PAT/PMT and place at HLS fragment start
 --pat-nit-not-first              Filter PAT table, make sure NIT cannot be first
 --no-multilevel                  Keep M3U8 at one level (this disables VTT subtitles)
 --separate-streams               Write audio and video to separate streams
 --sap                            Write secondary audio
"""

FLAGS = (b"sap", b"separate-streams", b"no-multilevel", b"pat-nit-not-first", b"start-pat-pmt",
         b"no-padding", b"clear-old", b"clear-old-only")
TEXTS = (b"base-url", b"m3u8-name", b"frag-name")
RANGES = {b"frag-backlog": range(1, 1001), b"frag-duration": range(1, 21)}
CONTROL_SOCKET = b"anon-sock"


@dataclass
class Options:
    frag_duration: int = 4
    frag_backlog: int = 10
    m3u8_name: bytes = b"ch1.m3u8"
    frag_name: bytes = b"ch1"
    base_url: bytes = b""
    clear_old: bool = False
    clear_old_only: bool = False
    no_padding: bool = False
    start_pat_pmt: bool = False
    pat_nit_not_first: bool = False
    no_multilevel: bool = False
    separate_streams: bool = False
    sap: bool = False
    anon_sock: int = -1


def strtol_int32(text):
    match = re.match(rb"[ \t\n\v\f\r]*([+-]?[0-9]+)", text)
    value = int(match.group(1)) if match else 0
    value = max(-1 << 63, min((1 << 63) - 1, value))
    return (value + (1 << 31)) % (1 << 32) - (1 << 31)


def parse_options(arguments, say):
    """None if the program ends with status 1."""
    options = Options()
    waiting = list(arguments)
    while waiting:
        argument = waiting.pop(0)
        if not argument.startswith(b"-"):
            say(b"Unexpected arg\n")
            return None
        name = argument.lstrip(b"-")
        field = name.decode("latin-1").replace("-", "_")
        if name in (b"help", b"h"):
            say(USAGE)
            return None
        if name in FLAGS:
            setattr(options, field, True)
            options.clear_old |= options.clear_old_only
        elif name not in TEXTS and name not in RANGES and name != CONTROL_SOCKET:
            say(b"Unknown switch '%s'\n" % name)
            return None
        elif not waiting:
            # A socket without its number ends the command line, and nothing more is checked.
            return options if name == CONTROL_SOCKET else None
        elif name in TEXTS:
            setattr(options, field, waiting.pop(0))
        else:
            value = strtol_int32(waiting.pop(0))
            setattr(options, field, value)
            if name in RANGES and value not in RANGES[name]:
                return None
    return options if _check(options, say) else None


def _check(options, say):
    for name in (options.frag_name, options.m3u8_name):
        if not name or name.startswith(b"/") or name.endswith(b"/") or b".." in name:
            return False
    if options.base_url and not options.base_url.endswith(b"/"):
        return False
    if options.separate_streams:
        if options.no_multilevel:
            say(b"Separate streams AND no multilevel are incompatible options!\n")
            options.no_multilevel = False
        if not options.start_pat_pmt:
            say(b"Separate streams REQUIRES --start-pat-pmt option\n")
            options.start_pat_pmt = True
    return True
