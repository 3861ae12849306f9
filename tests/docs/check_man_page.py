#!/usr/bin/env python3
"""Compares the man page with what the command says of itself: its version, the commands, and the
options of each. Usage: check_man_page.py COMMAND MANPAGE"""
import pathlib
import re
import subprocess
import sys

OPTION = re.compile(r"(?<![\w-])--?\w[\w-]*")


def said(*arguments):
    return subprocess.run([sys.argv[1], *arguments], check=True, capture_output=True,
                          text=True).stdout


def rows(text, title):
    """First columns of a section of a help text."""
    section = re.search(rf"^{title}:\n((?:  .*\n)*)", text, re.M)
    return [re.split(r"Excludes:|\s{2,}", row.strip())[0]
            for row in (section.group(1).splitlines() if section else [])]


def options_in_help(text):
    return {option for row in rows(text, "Options") for option in OPTION.findall(row)}


def options_in_page(text):
    tags = re.findall(r"^\.TP\n(.*)", text, re.M)
    return {option for tag in tags for option in OPTION.findall(tag.replace("\\-", "-"))}


def main():
    page = pathlib.Path(sys.argv[2]).read_text()
    help_text = said("--help")
    sections = dict(re.findall(r"^\.S[SH] (\w+)\b.*\n((?:(?!\.S[SH] ).*\n)*)", page, re.M))
    commands = {row.split()[0] for row in rows(help_text, "Subcommands")}
    faults = []
    described = {name for name in sections if name.islower()}
    if not commands or commands != described:
        faults.append(f"commands: {sorted(commands)} in the help, {sorted(described)} in the page")
    everywhere = {"-h", "--help"}
    pairs = [("OPTIONS", options_in_help(help_text), options_in_page(sections["OPTIONS"]))]
    for command in sorted(commands & described):
        pairs.append((command, options_in_help(said(command, "--help")) - everywhere,
                      options_in_page(sections[command])))
    for name, told, written in pairs:
        faults += [f"{name}: {option} is not in the man page" for option in sorted(told - written)]
        faults += [f"{name}: there is no {option}" for option in sorted(written - told)]
    version = said("--version").strip()
    if f'"{version}"' not in page:
        faults.append(f"the man page is not that of {version}")
    sys.exit("\n".join(faults) or None)


main()
