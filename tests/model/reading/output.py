"""One rendition: its numbered fragment files, of which one is open at most, and its playlist."""

from .playlist import Entry

NOT_LISTED = -1.0


class Output:
    def __init__(self, base_name, playlist, directory, say, suffix=b"", first_packets=None):
        """first_packets: gives the packets that the next fragment begins with."""
        self.base_name = base_name
        self.suffix = suffix
        self.playlist = playlist
        self.directory = directory
        self.say = say
        self.first_packets = first_packets or (lambda: [])
        self.file = None
        self.file_name = b""
        self.file_bytes = 0  # of the fragment opened last
        self.file_number = None  # of the fragment opened last
        self.next_number = 0
        self.sequence = 0  # of the next entry; a fragment's number once one is open
        self.duration = NOT_LISTED  # of the open fragment, set just before it is retired

    def open(self):
        """Takes the next number, which is used up even if the file cannot be had. Without a base name
        there is no file, and no number is taken."""
        if self.file:
            return True
        if not self.base_name:
            return False
        number = self.next_number
        self.sequence = self.file_number = number
        self.next_number = number + 1
        name = self.base_name + b".%08d.ts" % number + self.suffix
        self.file = self.directory.create(name)
        if self.file is None:
            return False
        self.file_name = name
        self.file_bytes = 0
        for packet in self.first_packets():
            self.write(packet)
        return True

    def write(self, data):
        """Opens the next fragment if none is open. False if there can be none."""
        if not self.open():
            return False
        self.file.write(data)
        self.file_bytes += len(data)
        return True

    def retire(self):
        """Closes the fragment and enters it in the playlist; an output without one enters an empty
        name. Deletes what has fallen out of the playlist."""
        if self.duration > 0:
            self.playlist.entries.append(Entry(self.file_name, self.sequence, self.duration))
            self.sequence += 1
        self.duration = NOT_LISTED
        self.file = None
        self.file_name = b""
        for entry in self.playlist.take_surplus():
            if entry.name:
                self.say(b"Deleting old fragment %s\n" % entry.name)
                self.directory.remove(entry.name)
        self.playlist.write(self.directory, self.say)

    def end(self):
        """At the end of the run. The open fragment does not become an entry any more."""
        if self.file:
            self.playlist.write(self.directory, self.say)
            self.file = None
