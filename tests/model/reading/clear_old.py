"""Removal of what an earlier run with the same names left behind. The program goes through a folder
in the order in which the system lists it; here that is the order of the names."""

import re

PLAYLIST = re.compile(rb"\.(sap|av|v|a)\.m3u8(\.[A-Za-z0-9-]*\.vtt\.m3u8)?\Z")
FRAGMENT = re.compile(rb"\.((v|a|av|sap)\.)?[0-9]*\.ts(\.[A-Za-z0-9-]*\.vtt)?\Z")


def clear_old(options, directory, say):
    _remove(options.m3u8_name, directory, say)
    _scan(options.m3u8_name, PLAYLIST, directory, say)
    _scan(options.frag_name, FRAGMENT, directory, say)


def _scan(name, pattern, directory, say):
    folder, slash, base = name.rpartition(b"/")
    if not slash:
        folder = b"."
    if not folder or not base:
        return
    say(b"Removing old: scanning directory %s for %s\n" % (folder, base))
    for entry in directory.names_in(folder):
        if (not entry.startswith(b".") and entry.startswith(base)
                and pattern.match(entry[len(base):])):
            _remove(folder + b"/" + entry, directory, say)


def _remove(path, directory, say):
    if directory.is_regular_file(path):
        say(b"Removing old: %s\n" % path)
        directory.remove(path)
