"""The options of a run."""

from dataclasses import dataclass, replace


@dataclass(frozen=True)
class Options:
    """As the command line has them; `in_force` tells what follows from them."""
    separate_streams: bool = False
    sap: bool = False
    start_pat_pmt: bool = False
    pat_nit_not_first: bool = False
    no_padding: bool = False
    no_multilevel: bool = False
    frag_duration: int = 4
    frag_backlog: int = 10

    def arguments(self):
        words = []
        for name, value in vars(self).items():
            if value != getattr(Options, name):
                words.append("--" + name.replace("_", "-"))
                words += [] if value is True else [str(value)]
        return words

    def in_force(self):
        """The options that are acted on, and the warnings given about the difference."""
        if not self.separate_streams:
            return self, []
        warnings = []
        if self.no_multilevel:
            warnings.append("Separate streams AND no multilevel are incompatible options!")
        if not self.start_pat_pmt:
            warnings.append("Separate streams REQUIRES --start-pat-pmt option")
        return replace(self, no_multilevel=False, start_pat_pmt=True), warnings
