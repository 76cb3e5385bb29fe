"""The working directory in memory. Paths and contents are bytes."""

import posixpath
from dataclasses import dataclass, field


@dataclass
class OpenFile:
    """A descriptor: two of them on one file each have a position of their own."""

    content: bytearray
    position: int = 0

    def write(self, data):
        self.content.extend(bytes(max(0, self.position - len(self.content))))
        end = self.position + len(data)
        self.content[self.position:end] = data
        self.position = end


@dataclass
class Directory:
    files: dict = field(default_factory=dict)
    links: dict = field(default_factory=dict)
    folders: set = field(default_factory=lambda: {b"."})
    replaced: list = field(default_factory=list)  # (name, content) of every replace(), in order

    def create(self, path):
        """An empty file open for writing, or None if a folder is in the way or there is none for
        it."""
        if not self._can_hold(path):
            return None
        content = self.files.setdefault(posixpath.normpath(path), bytearray())
        content.clear()
        return OpenFile(content)

    def replace(self, path, content):
        """By way of a temporary file, which stays if it cannot take the name. False if there can be
        no temporary file."""
        temporary = self.create(path + b".tmp")
        if temporary is None:
            return False
        temporary.write(content)
        if self._can_hold(path):
            name = posixpath.normpath(path)
            self.links.pop(name, None)
            self.files[name] = self.files.pop(posixpath.normpath(path + b".tmp"))
            self.replaced.append((path, content))
        return True

    def remove(self, path):
        self.files.pop(posixpath.normpath(path), None)

    def is_regular_file(self, path):
        return (path != b"" and not path.endswith(b"/")
                and posixpath.normpath(path) in self.files)

    def names_in(self, folder):
        folder = posixpath.normpath(folder)
        paths = [*self.files, *self.links, *(self.folders - {b"."})]
        return sorted(posixpath.basename(path) for path in paths
                      if _folder_of(path) == folder)

    def _can_hold(self, path):
        if not path or path.endswith(b"/"):
            return False
        name = posixpath.normpath(path)
        return _folder_of(name) in self.folders and name not in self.folders


def _folder_of(path):
    return posixpath.dirname(path) or b"."
