"""Turns a page of Markdown into a manual page, so that there is one text.

usage: mdoc_page.py PAGE.md NAME SECTION DESCRIPTION > NAME.SECTION

It knows the Markdown that the pages use: headings, paragraphs, lists, tables, fenced blocks, code
spans, bold words and links. Test vectors stay behind, since they are for programs to read.
"""

import re
import sys
from pathlib import Path

HEAD = """\
.\\" Generated from {file}.
.Dd November 21, 2026
.Dt {title} {section}
.Os Linux
.Sh NAME
.Nm {name}
.Nd {description}
.Sh DESCRIPTION
"""

TAIL = """\
.Sh SEE ALSO
.Xr vorn_caption_feed 1 ,
.Xr vorn_mpegts_to_hls 1
.Pp
.Pa {file} ,
of which this page is made{more}.
"""

LEFT_OUT = "Test vectors"


def protected(text):
    """Text that roff prints as it stands."""
    text = text.replace("\\", "\\e")
    return "\\&" + text if text.startswith((".", "'")) else text


def spans(text):
    """Text with its code spans and bold words in bold, and its links as their text."""
    text = re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", text)
    text = re.sub(r"\*\*([^*]*)\*\*", r"`\1`", text)
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


def words(text):
    """Text whose words are not taken for macros ("In", "No"), as they would be in an item's line."""
    return re.sub(r"(?<!\S)(?=[A-Z][a-z](?!\S))", r"\\&", text)


def table(rows):
    cells = [[words(spans(cell.strip())) for cell in row.strip().strip("|").split("|")]
             for row in rows]
    del cells[1]  # the rule below the head
    widest = [max((row[at].replace("\\fB", "").replace("\\fR", "") for row in cells), key=len)
              for at in range(len(cells[0]) - 1)]
    lines = [".Bl -column " + " ".join(f'"{text}"' for text in widest) + ' "x"']
    for number, row in enumerate(cells):
        row = [f"Em {cell}" for cell in row] if number == 0 else row
        lines.append(".It " + " Ta ".join(cell or "\\&" for cell in row))
    return lines + [".El"]


def main():
    page, name, section, description = sys.argv[1:]
    lines = Path(page).read_text(encoding="utf-8").splitlines()
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
    blanks = {"file": Path(page).name, "title": name.upper(), "name": name, "section": section,
              "description": description,
              "more": ", also has test vectors for receivers" if f"## {LEFT_OUT}" in lines else ""}
    sys.stdout.write(HEAD.format(**blanks) + "\n".join(out) + "\n" + TAIL.format(**blanks))


main()
