"""Turns the plain comments of a header into what Doxygen reads: doxygen_filter.py HEADER.

A comment documents the declaration below it, and those that follow without a blank line; behind a declaration it documents
that one. A heading "/* ---- Text ---- */" begins a group.
"""

import re
import sys

HEADING = re.compile(r"/\* -+ (.*?) -+ \*/$")
DECLARATION = re.compile(r"((extern )?(QTX|QTXSIM)_API\b|#define \w+ \w|typedef struct|enum )")


def main():
    text = open(sys.argv[1], encoding="utf-8").read()
    lines = text.replace("/*\n", "/** @file\n", 1).split("\n")
    comment, group, inside = [], False, False
    for number, line in enumerate(lines):
        if heading := HEADING.match(line):
            print("/** @} */" if group else "", f"/** @name {heading[1]}\n@{{ */")
            group = True
            continue
        if group and line == "#ifdef __cplusplus":
            print("/** @} */")
            group = False
        if line.startswith("/* "):
            comment, inside = [], True
            line = "/**" + line[2:]
        elif DECLARATION.match(line) and lines[number - 1] and not lines[number - 1].endswith("*/"):
            print("\n".join(comment))
        line = re.sub(r"(\S\s+)/\* ", r"\1/**< ", line)
        line = re.sub(r"^(\s+)/\* ", r"\1/** ", line)
        if inside:
            comment.append(line)
            inside = not line.endswith("*/")
        print(line)


main()
