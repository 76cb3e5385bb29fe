"""What the program does with a stream, a directory and a list of arguments: a second, plain
reading of its rules, made to be compared with the first."""
