"""Makes a document fit for an installation, where only some of the others are beside it.

usage: installed_page.py ROOT DOCUMENT [PATH=PLACE ...]

Prints the document. A link to the file with this path from the root of the source goes to the place;
one to any other file becomes its words alone, and pictures are left out. Links to the web stay.
"""

import re
import sys
from pathlib import Path


def main():
    root, document = Path(sys.argv[1]).resolve(), Path(sys.argv[2]).resolve()
    places = {root / path: place
              for path, place in (argument.split("=", 1) for argument in sys.argv[3:])}

    def link(found):
        picture, words, target, anchor = found.groups()
        if target.startswith(("http:", "https:")) or not target:
            return found[0]
        place = places.get((document.parent / target).resolve())
        if picture or place is None:
            return "" if picture else words
        return f"[{words}]({place}{anchor or ''})"

    text = re.sub(r"(!?)\[([^\]]*)\]\(([^)#]*)(#[^)]*)?\)", link,
                  document.read_text(encoding="utf-8"))
    print(re.sub(r"\n{3,}", "\n\n", text), end="")


main()
