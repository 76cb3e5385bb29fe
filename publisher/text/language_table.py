"""Writes the table of language codes and names as C++, from Debian's iso-codes.

usage: language_table.py ISO_639-2.JSON > TABLE.INC

Each row: code of three letters (terminology or bibliographic), code of two letters or nothing, name.
"""

import json
import sys

with open(sys.argv[1], encoding="utf-8") as file:
    languages = json.load(file)["639-2"]

# Codes that stand for no language.
no_languages = {"mis", "mul", "und", "zxx"}

rows = {}
for language in languages:
    name = language.get("common_name", language["name"]).split(";")[0].strip()
    row = (language.get("alpha_2", ""), name)
    for code in (language["alpha_3"], language.get("bibliographic"), language.get("alpha_2")):
        if code and len(code) <= 3 and code not in no_languages:
            rows[code] = row

for code in sorted(rows):
    short, name = rows[code]
    print(f'{{"{code}", "{short}", "{name}"}},')
