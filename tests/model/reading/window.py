"""The input window: which part of the input is buffered, and so how far the program can look ahead
and where a pass over it ends. A read of a regular file brings all that there is room for, or the
rest of the file; a read of a pipe brings one piece, as it was written into the pipe."""

from .packet import PACKET_BYTES, SYNC_BYTE

CAPACITY = 8 << 20
FIRST_FILL = 2 << 20
LARGEST_REQUEST = FIRST_FILL
PACKETS_FOR_SYNC = 8


class Window:
    """Offsets are those of the whole input. `piece`: the length of a pipe's; None: a file."""

    def __init__(self, stream, piece=None):
        self.stream = stream
        self.piece = piece
        self.origin = 0  # of the window
        self.begin = 0  # of the bytes not consumed
        self.end = 0  # of the bytes read
        self.at_end_of_input = False

    @property
    def available(self):
        return self.end - self.begin

    def refill(self, needed):
        """False once the input ends before `needed` bytes are buffered. The bytes not consumed are
        moved to the window's front only when what the program may ask for would no longer fit
        behind them. When that is decides how much a read brings, and so where passes end."""
        if self.origin + CAPACITY - self.begin < LARGEST_REQUEST:
            self.origin = self.begin
        fence = min(self.origin + CAPACITY, len(self.stream))
        while self.available < needed:
            if self.end == len(self.stream):
                self.at_end_of_input = True
                return False
            self.end = min(self.end + self.piece, fence) if self.piece else fence
        return True

    def synchronise(self):
        """Moves to the next sync byte. False if those of the packets behind it are not in place;
        the next attempt then begins one byte further on."""
        at = self.stream.find(SYNC_BYTE, self.begin, self.end)
        if at < 0:
            self.begin = self.end
            return True
        self.begin = at
        last = min(at + PACKETS_FOR_SYNC * PACKET_BYTES, self.end) - PACKET_BYTES
        for packet in range(at, last + 1, PACKET_BYTES):
            if self.stream[packet] != SYNC_BYTE:
                self.begin = at + 1
                return False
        return True
