"""Holds the documents against the source text.

usage: documents.py PROJECT-ROOT PROGRAM

- each option of a parser stands in the manual page, in the usage text and in the completion, and
  none of these has one that the parser lacks; README.md and the pages name none besides;
- the program takes numbers as far as its manual page says, and no further;
- each message in the source has its entry under DIAGNOSTICS, and each entry is one of these;
- each file, folder, heading and test that a Markdown document refers to is there;
- Markdown is wrapped at 100 columns, but for tables and what is quoted;
- CONTRIBUTING.md has all presets and all options of the build that a contributor may give.
"""

import json
import re
import subprocess
import sys
import tempfile
from functools import partial
from pathlib import Path

STRING = r'"((?:[^"\\]|\\.)*)"'
CONVERSION = re.compile(r"%[-+0-9.]*(?:ll|z)?[dfsux\0]")  # \0 stands for a PRI macro

# For the process that starts the program, or needing no line of its own.
NOT_IN_USAGE = {"anon-sock", "help", "h"}
NOT_COMPLETED = {"h"}
USAGE_LINES = ("vorn_mpegts_to_hls [options]", " --")


def read(path):
    return path.read_text(encoding="utf-8")


def joined_literals(text):
    """The text with adjacent literals made one; a PRI macro between them counts as a conversion."""
    text = re.sub(r'"\s*PRI\w+\s*"', "\0", text)
    return re.sub(r'"\s*\n\s*"', "", text)


def difference(what, got, want):
    faults = [f"{what} lacks '{name}'" for name in sorted(want - got)]
    return faults + [f"{what} has '{name}', which there is not" for name in sorted(got - want)]


def man_options(page):
    heads = re.findall(r"^\.It (Fl .*)$", page, re.MULTILINE)
    return {name for head in heads for name in re.findall(r"Fl -?([a-z][a-z0-9-]*)", head)}


def completed_options(text):
    return set(re.findall(r"(?<![\w-])--([a-z][a-z0-9-]*)", text))


def said_by(program, *arguments):
    """What the program says where the input has not a byte."""
    with tempfile.TemporaryDirectory() as folder:
        return subprocess.run([program, *arguments], cwd=folder, stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, check=False).stderr


def check_range(program, page, name):
    """Of the option's number, as the page has it. One that is not taken ends without a word."""
    entry = re.search(rf"^\.It Fl -{name} .*?(?=^\.It)", page, re.MULTILINE | re.DOTALL)
    limits = entry and re.search(r"(\d+) to (\d+)", entry[0])
    if not limits:
        return [f"vorn_mpegts_to_hls.1 has no range at --{name}"]
    lowest, highest = int(limits[1]), int(limits[2])
    taken = {number: said_by(program, f"--{name}", str(number)) != ""
             for number in (lowest - 1, lowest, highest, highest + 1)}
    return [] if list(taken.values()) == [False, True, True, False] else [
        f"vorn_mpegts_to_hls.1: --{name} is not from {lowest} to {highest}: {taken}"]


def check_program_options(program, root):
    page = read(root / "docs/vorn_mpegts_to_hls.1")
    usage = dict(re.findall(r"^ --([a-z0-9-]+) (<n>)?", said_by(program, "--help"), re.MULTILINE))
    known = set(usage) | NOT_IN_USAGE
    completion = completed_options(read(root / "packaging/completions/vorn_mpegts_to_hls"))

    faults = difference("vorn_mpegts_to_hls.1", man_options(page), known)
    faults += difference("completion", completion, known - NOT_COMPLETED)
    faults += [f"the program does not know --{name}" for name in sorted(known)
               if "Unknown switch" in said_by(program, f"--{name}", "1")]
    for name in sorted(name for name, number in usage.items() if number):
        faults += check_range(program, page, name)
    return len(usage), faults


def check_tool_options(folder, tool, root):
    source = read(root / f"tools/{folder}/options.cpp")
    page = read(root / f"docs/{tool}.1")
    parsed = set(re.findall(r'\{"([a-z-]+)", \w+_argument', source))
    usage = set(re.findall(r"^  --([a-z-]+)", source, re.MULTILINE))
    completion = completed_options(read(root / "packaging/completions" / tool))
    faults = difference(f"{tool}.1", man_options(page), parsed)
    faults += difference(f"usage text of {tool}", usage, parsed)
    faults += difference(f"completion of {tool}", completion, parsed)
    return len(parsed), faults


# The library gives --help by itself.
def check_publisher_options(source, tool, root):
    source = read(root / "publisher" / source)
    parsed = set(re.findall(r'(?:add|add_option|add_flag|set_version_flag)\("--([a-z0-9-]+)"', source))
    faults = difference(f"{tool}.1", man_options(read(root / f"docs/{tool}.1")),
                        parsed | {"help", "version"})
    completion = completed_options(read(root / "packaging/completions" / tool))
    return len(parsed), faults + difference(f"completion of {tool}", completion,
                                            parsed | {"help", "version"})


def check_metrics(root):
    """Those that are served, in the manual page and in the alerts."""
    served = set(re.findall(r'"vorn_hls_publish_(\w+)"', read(root / "publisher/metrics/metrics.cpp")))
    page = read(root / "docs/vorn_hls_publish.1")
    heads = re.findall(r"^\.It Li (.*)$", page, re.MULTILINE)
    faults = difference("vorn_hls_publish.1", set(re.findall(r"\w+", " ".join(heads))), served)
    rules = read(root / "packaging/prometheus/vorn_hls_publish_rules.yml")
    used = set(re.findall(r"vorn_hls_publish_(\w+)(?!\w|\.)", rules)) - {"rules"}
    return len(served), faults + [f"the alerts use {name}, which is not served"
                                  for name in sorted(used - served)]


def entries(page):
    """The heads of the -diag lists, which mdoc prints as they stand."""
    diagnostics = page[page.index("\n.Sh DIAGNOSTICS\n"):page.index("\n.Sh SEE ALSO\n")]
    return re.findall(r"^\.It (.*)$", diagnostics, re.MULTILINE)


def pattern(message):
    """What a message may look like once its conversions are filled in."""
    message = message.replace("\\n", "").replace("%%", "%")
    return re.compile(".*".join(map(re.escape, CONVERSION.split(message))))


def check_messages(page_name, page, messages):
    heads = entries(page)
    patterns = {message: pattern(message) for message in messages}
    faults = [f"{page_name} does not explain: {message}" for message, form in patterns.items()
              if not any(form.fullmatch(head) for head in heads)]
    faults += [f"{page_name} explains what is not in the source: {head}" for head in heads
               if not any(form.fullmatch(head) for form in patterns.values())]
    return faults


def sources(root, folder):
    return [joined_literals(read(path)) for path in sorted((root / folder).rglob("*.cpp"))]


def main_source(root, tool):
    return [joined_literals(read(root / f"tools/{tool}.cpp"))]


def check_program_messages(root):
    messages = {message for text in sources(root, "v2") + sources(root, "toolkit")
                for message in re.findall(rf"printf\(\s*stderr,\s*{STRING}", text)
                if not message.startswith(USAGE_LINES)}
    page = read(root / "docs/vorn_mpegts_to_hls.1")
    return len(messages), check_messages("vorn_mpegts_to_hls.1", page, messages)


# The feeder builds its messages in layers: what is reported at a line of a source, what ends the
# program, and the reason of the system behind either.
def check_feeder_messages(root):
    texts = sources(root, "tools/caption_feed") + main_source(root, "vorn_caption_feed")

    def found(form):
        return {match for text in texts for match in re.findall(form, text)}

    messages = {message for message in found(rf"printf\(stderr, {STRING}")
                if re.search("[a-z]{3}", re.sub("vorn_caption_feed:|Try .*", "", message))}
    messages |= {"%s:%zu: " + text for text in found(rf"report\(reader, {STRING}")}
    messages |= {"%s:%zu: " + text + "; the cue is skipped"
                 for text in found(rf"(?:drop_cue\(reader, |problem = ){STRING}")}
    messages |= {"vorn_caption_feed: " + text + ": %s" for text in found(rf"fail\({STRING}")}
    for expression in found(r"error = ([^;]*\"[^;]*);"):
        pieces = re.split(STRING, expression)  # every other one is a literal
        messages.add("vorn_caption_feed: " + "".join(
            piece if at % 2 else "%s" if piece.strip() else "" for at, piece in enumerate(pieces)))
    # "an option is unknown" is replaced by one that names it, before anything is printed.
    messages.discard("vorn_caption_feed: an option is unknown or lacks its value")
    page = read(root / "docs/vorn_caption_feed.1")
    return len(messages), check_messages("vorn_caption_feed.1", page, messages)


# What vorn_ts_prepare tells of a stream goes through tell(), which puts its name in front.
def check_preparer_messages(root):
    texts = sources(root, "tools/ts_prepare") + main_source(root, "vorn_ts_prepare")

    def found(form):
        return {match for text in texts for match in re.findall(form, text)}

    messages = {message for message in found(rf"printf\(\s*stderr,\s*{STRING}")
                if re.search("[a-z]{3}", re.sub("vorn_ts_prepare:|Try .*", "", message))}
    messages |= {"vorn_ts_prepare: " + text
                 for text in found(rf"tell\(p\.notices, notice_kind::\w+, now_us,\s*{STRING}")}
    messages |= {"vorn_ts_prepare: " + text for text in found(rf"error = {STRING};")}
    messages |= {"vorn_ts_prepare: '%s" + text for text in found(r"argv\[\w+\]\) \+ \"([^\"]*)\"")}
    messages.discard("vorn_ts_prepare: an option is unknown or lacks its value")
    page = read(root / "docs/vorn_ts_prepare.1")
    return len(messages), check_messages("vorn_ts_prepare.1", page, messages)


def slug(heading):
    """The anchor that a heading gets on the pages of code hosts."""
    return re.sub(r"[^\w -]", "", heading.strip().lower()).replace(" ", "-")


def markdown(root):
    return [*root.glob("*.md"), *root.glob("[a-z]*/*.md"), *root.glob("tests/*/*.md")]


def check_named_options(root):
    explained = set().union(*(man_options(read(page)) for page in root.glob("docs/*.1")))
    count, faults = 0, []
    for document in [root / "README.md", *root.glob("docs/*.md")]:
        named = set(re.findall(r"`--([a-z][a-z0-9-]*)", read(document)))
        count += len(named)
        faults += [f"{document.name}: no manual page has --{name}" for name in named - explained]
    return count, faults


def check_width(root):
    count, faults = 0, []
    for document in markdown(root):
        prose = re.sub(r"^```.*?^```$", lambda block: "\n" * block[0].count("\n"), read(document),
                       flags=re.MULTILINE | re.DOTALL)
        for number, line in enumerate(prose.splitlines(), 1):
            count += 1
            if len(line) > 100 and not line.startswith("|"):
                faults.append(f"{document.name}:{number}: longer than 100 columns")
    return count, faults


def anchors(page):
    return {slug(heading) for heading in re.findall(r"^#+ (.*)$", page, re.MULTILINE)}


def check_references(root):
    """Links, and what is quoted as code and begins with a folder of the source."""
    folders = "|".join(path.name for path in root.iterdir() if path.is_dir() and path.name != "build")
    count, faults = 0, []
    for document in markdown(root):
        page = read(document)
        for target, anchor in re.findall(r"\]\((?!https?:)([^)#]*)(?:#([^)]*))?\)", page):
            count += 1
            path = (document.parent / target) if target else document
            if not path.exists() or anchor and anchor not in anchors(read(path)):
                faults.append(f"{document.name}: {target}#{anchor} is not there")
        for name in re.findall(rf"`((?:{folders})/[\w./@-]*)", page):
            count += 1
            path = root / name
            if not path.exists() and not path.with_suffix(".cpp").exists():
                faults.append(f"{document.name}: {name} is not there")
    return count, faults


def check_tests(root):
    """Tests of GoogleTest's, named like `Suite.Name` or `Suite.*`."""
    text = "".join(read(path) for path in root.glob("tests/**/*_test.cpp"))
    tests = {f"{suite}.{name}" for suite, test in re.findall(r"^TEST(?:_[FP])?\((\w+),\s*(\w+)\)",
                                                             text, re.MULTILINE)
             for name in (test, "*")}
    named = {name for document in markdown(root)
             for name in re.findall(r"`([A-Z]\w+\.(?:[A-Z]\w+|\*))`", read(document))}
    return len(named), [f"there is no test {name}" for name in sorted(named - tests)]


def check_presets(root):
    presets = json.loads(read(root / "CMakePresets.json"))["configurePresets"]
    wanted = {preset["name"] for preset in presets if not preset.get("hidden")}
    page = read(root / "CONTRIBUTING.md")
    table = set(re.findall(r"^\| `(\w+)` \|", page, re.MULTILINE))
    of_presets = {name for preset in presets for name in preset.get("cacheVariables", {})}
    options = set(re.findall(r"^option\((\w+)", read(root / "CMakeLists.txt"), re.MULTILINE))
    named = set(re.findall(r"-D(VORN_\w+)=", page))
    return len(wanted), (difference("CONTRIBUTING.md", table, wanted) +
                         difference("CONTRIBUTING.md", named, options - of_presets))


def main():
    root, program = Path(sys.argv[1]), Path(sys.argv[2]).resolve()
    all_faults = []
    for name, check in (("options of the program", partial(check_program_options, program)),
                        ("options of the feeder",
                         partial(check_tool_options, "caption_feed", "vorn_caption_feed")),
                        ("options of the preparer",
                         partial(check_tool_options, "ts_prepare", "vorn_ts_prepare")),
                        ("options of the publisher",
                         partial(check_publisher_options, "command_line.cpp", "vorn_hls_publish")),
                        ("options of the recorder",
                         partial(check_publisher_options, "vorn_hls_record.cpp", "vorn_hls_record")),
                        ("metrics of the publisher", check_metrics),
                        ("messages of the program", check_program_messages),
                        ("messages of the feeder", check_feeder_messages),
                        ("messages of the preparer", check_preparer_messages),
                        ("options named in pages", check_named_options),
                        ("references", check_references),
                        ("tests named in pages", check_tests),
                        ("lines of Markdown", check_width),
                        ("presets", check_presets)):
        count, faults = check(root)
        print(f"{count} {name}")
        all_faults += faults if count else [f"no {name} found"]
    print("\n".join(all_faults))
    return 1 if all_faults else 0


sys.exit(main())
