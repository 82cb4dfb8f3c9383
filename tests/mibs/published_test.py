#!/usr/bin/python3
"""Compares the extracts of mibs/compact with modules that others compiled from the
standards' own texts (Debian's python3-pysnmp4-mibs): the number, type, access and
labels of every object, and number and objects of every notification, that an extract
has. What an extract leaves out is its own affair.

usage: published_test.py SOURCE_DIR
"""
import re
import sys
from pathlib import Path

from pysnmp.smi import builder

MODULES = ["ENTITY-MIB", "ENTITY-SENSOR-MIB", "ENTITY-STATE-TC-MIB", "ENTITY-STATE-MIB"]
ACCESS = {"readonly": "read-only", "readwrite": "read-write", "noaccess": "not-accessible"}


def text_of(path):
    """A module without its comments and sentences."""
    text = re.sub(r'"[^"]*"', '""', path.read_text())
    return re.sub(r"--[^\n]*", "", text)


def labels_of(body):
    return {int(number): label for label, number in re.findall(r"([\w-]+)\s*\((-?\d+)\)", body)}


class Extract:
    def __init__(self, text):
        self.parents = {}
        assigned = (r"\b([a-z]\w*)\s+(?:OBJECT IDENTIFIER|MODULE-IDENTITY|OBJECT-TYPE|NOTIFICATION-TYPE|"
                    r"OBJECT-GROUP|NOTIFICATION-GROUP|MODULE-COMPLIANCE)\b(?:(?!::=).)*?::=\s*\{\s*([\w-]+)\s+(\d+)\s*\}")
        for name, parent, number in re.findall(assigned, text, re.S):
            self.parents[name] = (parent, int(number))
        self.objects = {}
        for name, syntax, access in re.findall(
                r"(\w+)\s+OBJECT-TYPE\s+SYNTAX\s+(.*?)\s+(?:UNITS\s+\"\"\s+)?MAX-ACCESS\s+([\w-]+)", text, re.S):
            self.objects[name] = (syntax, access)
        self.types = {name: labels_of(body) for name, body in re.findall(
            r"(\w+)\s*::=\s*TEXTUAL-CONVENTION(?:(?!SYNTAX).)*SYNTAX\s+(?:INTEGER|BITS)\s*\{(.*?)\}", text, re.S)}
        self.notifications = {name: re.findall(r"\w+", body) for name, body in re.findall(
            r"(\w+)\s+NOTIFICATION-TYPE\s+OBJECTS\s*\{(.*?)\}", text, re.S)}

    def number_of(self, name):
        if name == "mib-2":
            return (1, 3, 6, 1, 2, 1)
        parent, number = self.parents[name]
        return self.number_of(parent) + (number,)


def labels_of_published(syntax):
    named = getattr(syntax, "namedValues", None)
    return {int(number): str(label) for label, number in named.items()} if named else {}


def compare(module, extract, mibs):
    """How many things were compared, and what differs."""
    compared, findings = 0, []

    def same(what, ours, theirs):
        nonlocal compared
        compared += 1
        if ours != theirs:
            findings.append(f"{module}: {what}: {ours} here, {theirs} as published")

    symbols = mibs.mibSymbols[module]
    for name in extract.parents:
        if name not in symbols:
            findings.append(f"{module}: {name} is not in the published module")
        elif hasattr(symbols[name], "getName"):
            same(f"number of {name}", extract.number_of(name), tuple(symbols[name].getName()))
    for name, (syntax, access) in extract.objects.items():
        published = symbols.get(name)
        if not hasattr(published, "getSyntax") or published.getSyntax() is None:  # table or row
            same(f"access of {name}", access, "not-accessible")
            continue
        same(f"access of {name}", access, ACCESS.get(published.getMaxAccess(), published.getMaxAccess()))
        body = re.search(r"\{(.*)\}", syntax, re.S)
        kind = "INTEGER" if body else re.match(r"[\w-]+(?: [A-Z]+)?", syntax)[0]
        classes = [c.__name__ for c in type(published.getSyntax()).__mro__]
        wanted = {"INTEGER": "Integer32", "OBJECT IDENTIFIER": "ObjectIdentifier",
                  "OCTET STRING": "OctetString"}.get(kind, kind)
        compared += 1
        if wanted not in classes and not (wanted == "Integer32" and "Integer" in classes):
            findings.append(f"{module}: type of {name}: {kind} here, {classes[0]} as published")
        if body:
            same(f"labels of {name}", labels_of(body[1]), labels_of_published(published.getSyntax()))
    for name, labels in extract.types.items():
        same(f"labels of {name}", labels, labels_of_published(symbols[name]()))
    for name, objects in extract.notifications.items():
        same(f"objects of {name}", objects, [o[1] for o in symbols[name].getObjects()])
    return compared, findings


def main():
    directory = Path(sys.argv[1]) / "mibs" / "compact"
    mibs = builder.MibBuilder()
    mibs.loadModules(*MODULES)
    findings = []
    for module in MODULES:
        extract = Extract(text_of(directory / f"{module}.txt"))
        compared, found = compare(module, extract, mibs)
        print(f"{module}: {compared} compared, {len(found)} differ")
        if compared < 6:
            findings.append(f"{module}: only {compared} compared, that cannot be all")
        findings += found
    print(*findings, sep="\n")
    return 1 if findings else 0


sys.exit(main())
