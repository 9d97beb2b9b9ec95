#!/usr/bin/env python3
"""check_test_names.py SOURCE_DIR: every test that docs/*.md names exists in tests/.

A test is named in backquotes as `Suite.Case`, the Suite in upper camel case as GoogleTest wants it; a
parameterised test as `Suite.Case` too, without the instantiation. Fails as well when a row of a table that
has a column "Test" names none.
"""
import pathlib
import re
import sys

DECLARATION = re.compile(r"\bTEST(?:_F|_P)?\(\s*(\w+)\s*,\s*(\w+)\s*\)")
MENTION = re.compile(r"`([A-Z]\w*)\.([A-Z]\w*)`")
CELL = re.compile(r"(?<!\\)\|")


def main():
    source = pathlib.Path(sys.argv[1])
    declared = set()
    for path in (source / "tests").rglob("*.cpp"):
        declared.update(f"{suite}.{case}" for suite, case in DECLARATION.findall(path.read_text()))
    problems, mentions = [], 0
    for path in sorted((source / "docs").glob("*.md")):
        test_column = None
        for number, line in enumerate(path.read_text().splitlines(), 1):
            where = f"{path.relative_to(source)}:{number}"
            for suite, case in MENTION.findall(line):
                mentions += 1
                if f"{suite}.{case}" not in declared:
                    problems.append(f"{where}: there is no test {suite}.{case}")
            if not line.startswith("|"):
                test_column = None
                continue
            cells = [cell.strip() for cell in CELL.split(line)[1:-1]]
            if test_column is None:
                test_column = cells.index("Test") if "Test" in cells else -1
            elif test_column >= 0 and not set(line) <= set("|-: ") and not MENTION.search(cells[test_column]):
                problems.append(f"{where}: this row names no test")
    print("\n".join(problems) or f"{mentions} mentions of tests, all found")
    return 1 if problems or not mentions else 0


sys.exit(main())
