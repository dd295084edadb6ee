#!/usr/bin/env python3
"""Checks the test cases one build's test run skipped against the expected skips.

usage: skips.py SYSTEM RESULTS EXPECTED PROGRAM...

Every GoogleTest PROGRAM that CTest ran wrote RESULTS/PROGRAM.xml. A
skipped case passes only when EXPECTED (tests/expected-skips.txt) lists it
for SYSTEM (linux or windows); a listed case of SYSTEM that ran fails too,
so that the list says exactly what each system skips. Prints every skip
with its reason, then "skipped: N"; exits 1 on any mismatch or missing
report.
"""
import os
import sys
import xml.etree.ElementTree as ElementTree


def read_expected(path, system):
    """(program, test) -> why, for the lines of `system`."""
    expected = {}
    with open(path, encoding="utf-8") as lines:
        for number, line in enumerate(lines, 1):
            line = line.strip()
            if not line or line.startswith("#"):
                continue
            words = line.split(None, 3)
            if len(words) < 4 or words[0] not in ("linux", "windows"):
                sys.exit(f"{path}:{number}: want 'SYSTEM PROGRAM SUITE.TEST WHY', SYSTEM linux or windows")
            if words[0] == system:
                expected[(words[1], words[2])] = words[3]
    return expected


def read_skipped(results, program):
    """(program, test) -> GoogleTest's message, for the cases `program` skipped."""
    report = os.path.join(results, program + ".xml")
    if not os.path.exists(report):
        sys.exit(f"{report}: missing; {program} wrote no report, so its skips cannot be checked")
    skipped = {}
    for case in ElementTree.parse(report).getroot().iter("testcase"):
        mark = case.find("skipped")
        if case.get("result") == "skipped" or mark is not None:
            message = mark.get("message", "") if mark is not None else ""
            name = case.get("classname") + "." + case.get("name")
            skipped[(program, name)] = message.strip().splitlines()[-1] if message.strip() else ""
    return skipped


def main(arguments):
    if len(arguments) < 4:
        sys.exit(__doc__)
    system, results, expected_file, programs = arguments[0], arguments[1], arguments[2], arguments[3:]
    expected = read_expected(expected_file, system)
    skipped = {}
    for program in programs:
        skipped.update(read_skipped(results, program))
    problems = 0
    for key in sorted(skipped):
        if key in expected:
            print(f"skipped as expected: {key[0]} {key[1]}: {expected[key]}")
        else:
            print(f"UNEXPECTED SKIP: {key[0]} {key[1]}: {skipped[key]}")
            problems += 1
    for key in sorted(set(expected) - set(skipped)):
        print(f"LISTED BUT NOT SKIPPED: {key[0]} {key[1]} ({expected_file}, {system})")
        problems += 1
    print(f"skipped: {len(skipped)}")
    if problems:
        print(f"{problems} skips differ from {expected_file} for {system}: run every test, or list the skip with why")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
