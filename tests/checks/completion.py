"""Types command lines into an interactive bash and looks at what its Tab key makes of them.

usage: completion.py PROJECT-ROOT
"""

import os
import pty
import select
import sys
import tempfile
from pathlib import Path

ROOT = Path(sys.argv[1]).resolve()
PATIENCE_S = 30

# What is typed before Tab, and the line afterwards. There are a file film.ts and a folder films/.
CASES = [
    ("vorn_mpegts_to_hls --frag-d", "vorn_mpegts_to_hls --frag-duration "),
    ("vorn_mpegts_to_hls --clear-old-", "vorn_mpegts_to_hls --clear-old-only "),
    ("vorn_mpegts_to_hls --clear", "vorn_mpegts_to_hls --clear-old"),
    ("vorn_mpegts_to_hls --frag-duration 2", "vorn_mpegts_to_hls --frag-duration 2"),
    ("vorn_mpegts_to_hls --frag-backlog fil", "vorn_mpegts_to_hls --frag-backlog fil"),
    ("vorn_mpegts_to_hls fil", "vorn_mpegts_to_hls fil"),
    ("vorn_mpegts_to_hls < film.", "vorn_mpegts_to_hls < film.ts "),
    ("vorn_mpegts_to_hls --sap < film.", "vorn_mpegts_to_hls --sap < film.ts "),
    ("vorn_mpegts_to_hls < films", "vorn_mpegts_to_hls < films/"),
    ("vorn_mpegts_to_hls < films/o", "vorn_mpegts_to_hls < films/one\\ two.ts "),
    ("vorn_mpegts_to_hls --frag-name films", "vorn_mpegts_to_hls --frag-name films/"),
    ("vorn_mpegts_to_hls 2> film.", "vorn_mpegts_to_hls 2> film.ts "),
    ("vorn_ts_prepare --prog", "vorn_ts_prepare --programme "),
    ("vorn_ts_prepare --linger fil", "vorn_ts_prepare --linger fil"),
    ("vorn_ts_prepare --pad-to 80M < films", "vorn_ts_prepare --pad-to 80M < films/"),
    ("vorn_hls_publish --targ", "vorn_hls_publish --target-duration "),
    ("vorn_hls_publish --from fil", "vorn_hls_publish --from films/"),
    ("vorn_hls_publish --config film.", "vorn_hls_publish --config film.ts "),
    ("vorn_hls_publish --window fil", "vorn_hls_publish --window fil"),
    ("vorn_hls_record --beg", "vorn_hls_record --begin "),
    ("vorn_hls_record --to fil", "vorn_hls_record --to films/"),
    ("vorn_caption_feed --capt", "vorn_caption_feed --captions "),
    ("vorn_caption_feed --pace re", "vorn_caption_feed --pace realtime "),
    ("vorn_caption_feed --captions au", "vorn_caption_feed --captions auto "),
    ("vorn_caption_feed --captions eng=cc1", "vorn_caption_feed --captions eng=cc1 "),
    ("vorn_caption_feed --captions eng=telet", "vorn_caption_feed --captions eng=teletext:"),
    ("vorn_caption_feed --captions eng=film.", "vorn_caption_feed --captions eng=film.ts "),
    ("vorn_caption_feed --captions eng=films", "vorn_caption_feed --captions eng=films/"),
    ("vorn_caption_feed --lead 1 -- vorn_a_com", "vorn_caption_feed --lead 1 -- vorn_a_command "),
    ("vorn_caption_feed -- vorn_mpegts_to_hls --no-p",
     "vorn_caption_feed -- vorn_mpegts_to_hls --no-padding "),
    ("vorn_caption_feed -- /bin/vorn_mpegts_to_hls --frag-duration 3 --sep",
     "vorn_caption_feed -- /bin/vorn_mpegts_to_hls --frag-duration 3 --separate-streams "),
    ("vorn_caption_feed -- vorn_mpegts_to_hls --sap < film.",
     "vorn_caption_feed -- vorn_mpegts_to_hls --sap < film.ts "),
    ("vorn_caption_feed -- vorn_a_command film.",
     "vorn_caption_feed -- vorn_a_command film.ts "),
]

# Ctrl-X shows the line between brackets and empties it.
SETTINGS = """PS1='ready '
set +o history
bind 'set bell-style none'
bind 'set show-all-if-ambiguous off'
bind -x '"\\C-x": printf "\\n[%s]\\n" "$READLINE_LINE"; READLINE_LINE='
source "$COMPLETIONS/vorn_mpegts_to_hls"
source "$COMPLETIONS/vorn_caption_feed"
source "$COMPLETIONS/vorn_ts_prepare"
source "$COMPLETIONS/vorn_hls_publish"
source "$COMPLETIONS/vorn_hls_record"
vorn_a_command() { :; }
"""


class Bash:
    def __init__(self, folder):
        self.said = b""
        pid, self.terminal = pty.fork()
        if pid == 0:
            os.chdir(folder)
            (folder / "settings").write_text(SETTINGS)
            os.execvpe("bash", ["bash", "--noprofile", "--rcfile", "settings", "-i"],
                       {"PATH": os.environ["PATH"], "HOME": str(folder), "TERM": "dumb",
                        "LANG": "C.UTF-8", "COLUMNS": "1000",
                        "COMPLETIONS": str(ROOT / "packaging/completions")})

    def await_text(self, text):
        """Reads until the text comes, and gives what came before it."""
        while text not in self.said and select.select([self.terminal], [], [], PATIENCE_S)[0]:
            self.said += os.read(self.terminal, 4096)
        before, found, self.said = self.said.partition(text)
        if not found:
            raise RuntimeError(f"waited in vain for {text}: {before}")
        return before

    def completed(self, typed):
        os.write(self.terminal, typed.encode() + b"\t\x18")
        self.await_text(b"\r\n[")
        return self.await_text(b"]\r\n").decode()


def main():
    faults = []
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        (folder / "films").mkdir()
        for file in ("film.ts", "films/one two.ts"):
            (folder / file).touch()
        bash = Bash(folder)
        bash.await_text(b"ready ")
        for typed, wanted in CASES:
            got = bash.completed(typed)
            if got != wanted:
                faults.append(f"{typed}\n    becomes {got!r}\n    and not {wanted!r}")
        os.close(bash.terminal)
    print(f"{len(CASES)} lines completed")
    print("\n".join(faults))
    return 1 if faults else 0


sys.exit(main())
