"""Turns the plain comments of a header into what Doxygen reads: doxygen_filter.py HEADER.

A comment documents the declaration below it, and those that follow without a blank line; behind a declaration it documents
that one. A heading "/* ---- Text ---- */" begins a group. C++ headers have Doxygen's own comments, by the same rule.
"""

import re
import sys

HEADING = re.compile(r"/\* -+ (.*?) -+ \*/$")
DECLARATION = re.compile(r"((extern )?(QTX|QTXSIM)_API\b|#define \w+ \w|typedef struct|enum )")


def document_cpp(lines):
    comment, indent, previous = [], None, ""
    for line in lines:
        own_indent = len(line) - len(line.lstrip())
        if line.lstrip().startswith("/// "):
            if not previous.lstrip().startswith("///"):
                comment, indent = [], own_indent
            comment.append(line)
        elif not line:
            comment = []
        elif comment and own_indent == indent and line.lstrip()[0] not in "}:~" and "///" not in line:
            if not previous.lstrip().startswith(("///", "template")):
                print("\n".join(comment))
        if own_indent == indent or "///" in line:
            previous = line
        print(line)


def main():
    text = open(sys.argv[1], encoding="utf-8").read()
    if sys.argv[1].endswith(".hpp"):
        return document_cpp(text.split("\n"))
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
