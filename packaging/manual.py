"""Writes the manual page of the tool from what its --help says and from the texts below.

usage: manual.py TOOL VERSION > pulsekit.1
"""

import re
import subprocess
import sys

HEAD = r"""
.SH NAME
pulsekit \- work with impulse radars: find, set up, measure, keep
.SH SYNOPSIS
.B pulsekit
.RI [ OPTIONS ]\~ COMMAND \~[ ARGUMENTS ]
.SH DESCRIPTION
.B pulsekit
works on radars that are attached by USB, and on simulated ones
.RB ( --simulate ).
With one radar attached it needs no
.BR --radar .
What is set stays set for the commands that follow, until
.B reset
or with
.BR --fresh .
"""

TAIL = r"""
.SH EXIT STATUS
0 when all went well, 1 when something failed, 2 when the command line was wrong. Failures stand on standard error, with what
to do about them.
.SH ENVIRONMENT
.TP
.B PULSEKIT3_BRIDGE_LIBRARY
The bridge library to load, and no other; without it the vendor's.
.B libPulsekit3Simulator.so
is the simulated bench.
.TP
.B PULSEKIT3_SCENE
A file that says what the simulated radar looks at.
.TP
.B PULSEKIT3_SIMULATED_BRIDGE
.BR FT232H ,
.B FT2232H
or
.BR FT4232H :
the bridge of the simulated radar.
.TP
.B PULSEKIT3_SIMULATED_CHIP
Its chip, or
.B none
for a board with its flash alone.
.TP
.B PULSEKIT3_SIMULATED_TIME
.B real
(as long as on hardware),
.B host
or
.B deterministic
(quick, the same in every run).
"""

SEE_ALSO = r"""
.SH SEE ALSO
.ad l
/usr/share/doc/pulsekit3/docs/getting-started.md, /usr/share/doc/pulsekit3/docs/troubleshooting.md
"""

ENTRY = re.compile(r"  (\S.*?)(?:\s{2,}(.*))?$")


def escaped(text):
    text = text.replace("{true}", "[=...]")
    return re.sub(r"^([.'])", r"\\&\1", text.replace("\\", "\\e").replace("-", "\\-"))


def help_of(tool, *command):
    return subprocess.run([tool, *command, "--help"], check=True, capture_output=True, text=True).stdout.split("\n")


def entries(lines, wanted):
    """Pairs of what and meaning in the wanted sections of a help text; a meaning may go on in the lines below."""
    found, inside = [], False
    for line in lines:
        if line.endswith(":") and not line.startswith(" "):
            inside = wanted(line[:-1])
        elif inside and (entry := ENTRY.match(line)) and not line.startswith("   "):
            found.append([re.sub(r"\b(TEXT|REQUIRED) ?|:\{.*\}", "", entry[1]).strip(), entry[2] or ""])
        elif inside and line.strip() and found:
            found[-1][1] = (found[-1][1] + " " + line.strip()).strip()
    return found


def is_option(section):
    return section in ("Positionals", "Options")


def is_command(section):
    """Commands may stand in several groups."""
    return not is_option(section) and section != "Examples"


def list_of(pairs):
    return [f".TP\n.B {escaped(what)}\n{escaped(meaning)}" for what, meaning in pairs]


def pages_of(tool, command):
    lines = help_of(tool, *command)
    usage = next(line for line in lines if line.startswith("Usage: ")).split(" ", 2)[2]
    own = [pair for pair in entries(lines, is_option) if not pair[0].startswith("-h,")]
    text = [f".SS {escaped(usage)}", escaped(lines[0].strip()), *list_of(own)]
    for name, _ in entries(lines, is_command):
        text += pages_of(tool, [*command, name])
    return text


def main():
    tool, version = sys.argv[1:]
    lines = help_of(tool)
    print(f'.TH PULSEKIT 1 "" "Pulsekit3 {version}" "User Commands"{HEAD.rstrip()}')
    print(".SH OPTIONS", *list_of(entries(lines, is_option)), ".SH COMMANDS", sep="\n")
    for name, _ in entries(lines, is_command):
        print("\n".join(pages_of(tool, [name])))
    print(TAIL.strip())
    if "Examples:" in lines:
        examples = lines[lines.index("Examples:") + 1 :]
        shown = [escaped(line.strip()) for line in examples if line.startswith("  ")]
        print(".SH EXAMPLES\n.nf", *shown, ".fi", sep="\n")
    print(SEE_ALSO.strip())


main()
