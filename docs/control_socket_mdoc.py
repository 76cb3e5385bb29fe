"""Turns control-socket.md, the one description of the wire format, into a manual page.

usage: control_socket_mdoc.py control-socket.md > vorn_control_socket.7

It knows the Markdown that the page uses: headings, paragraphs, lists, tables, fenced blocks, code
spans and links. The test vectors stay behind, since they are for programs to read.
"""

import re
import sys
from pathlib import Path

HEAD = """\
.\\" Generated from control-socket.md.
.Dd November 21, 2026
.Dt VORN_CONTROL_SOCKET 7
.Os Linux
.Sh NAME
.Nm vorn_control_socket
.Nd how captions are sent to vorn_mpegts_to_hls
.Sh DESCRIPTION
"""

TAIL = """\
.Sh SEE ALSO
.Xr vorn_caption_feed 1 ,
.Xr vorn_mpegts_to_hls 1
.Pp
.Pa control-socket.md ,
of which this page is made, also has test vectors for receivers.
"""

LEFT_OUT = "Test vectors"


def protected(text):
    """Text that roff prints as it stands."""
    text = text.replace("\\", "\\e")
    return "\\&" + text if text.startswith((".", "'")) else text


def spans(text):
    """Text with its code spans in bold and its links as their text."""
    text = re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", text)
    parts = text.split("`")
    marked = "".join(protected(part) if at % 2 == 0 else "\\fB" + protected(part) + "\\fR"
                     for at, part in enumerate(parts))
    return marked


def sentences(lines):
    """One sentence a line, as manual pages have it."""
    text = " ".join(line.strip() for line in lines)
    return "\n".join(spans(line) for line in re.split(r"(?<=[.:;]) (?=[A-Z])", text))


def end_of_text(lines, at):
    """The line behind a paragraph or a list item that may go on over several lines."""
    while at < len(lines) and lines[at] and not lines[at].startswith(("- ", "|", "```")):
        at += 1
    return at


def table(rows):
    cells = [[spans(cell.strip()) for cell in row.strip().strip("|").split("|")] for row in rows]
    del cells[1]  # the rule below the head
    widest = [max((row[at].replace("\\fB", "").replace("\\fR", "") for row in cells), key=len)
              for at in range(len(cells[0]) - 1)]
    lines = [".Bl -column " + " ".join(f'"{text}"' for text in widest) + ' "x"']
    for number, row in enumerate(cells):
        row = [f"Em {cell}" for cell in row] if number == 0 else row
        lines.append(".It " + " Ta ".join(cell or "\\&" for cell in row))
    return lines + [".El"]


def main():
    lines = Path(sys.argv[1]).read_text(encoding="utf-8").splitlines()
    out = []
    at = 0
    new_section = True
    skipping = False
    while at < len(lines):
        line = lines[at]
        if line.startswith("## "):
            skipping = line[3:] == LEFT_OUT
        if skipping or not line or line.startswith("# "):
            at += 1
            continue
        if line.startswith("## "):
            out.append(".Sh " + line[3:].upper())
            new_section = True
            at += 1
            continue

        first = at
        if line.startswith("```"):
            at = lines.index("```", at + 1) + 1
            out += [".Bd -literal -offset indent", *map(protected, lines[first + 1:at - 1]), ".Ed"]
        elif line.startswith("|"):
            while at < len(lines) and lines[at].startswith("|"):
                at += 1
            out += table(lines[first:at])
        elif line.startswith("- "):
            out.append(".Bl -bullet")
            while at < len(lines) and lines[at].startswith("- "):
                first, at = at, end_of_text(lines, at + 1)
                out += [".It", sentences([lines[first][2:], *lines[first + 1:at]])]
            out.append(".El")
        else:
            at = end_of_text(lines, at + 1)
            out += ([] if new_section else [".Pp"]) + [sentences(lines[first:at])]
        new_section = False
    sys.stdout.write(HEAD + "\n".join(out) + "\n" + TAIL)


main()
