"""Random cases for the comparison: a stream, a command line, what stands in the directory, and
caption events. Everything follows from the seed."""
