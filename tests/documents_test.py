"""Holds the documents against the tree: tests that they name exist, and so do the files that they name or link to.

    documents_test.py ROOT
"""
import pathlib
import re
import sys

ROOT = pathlib.Path(sys.argv[1])
ROOMS = ("services/", "utils/", "platform/", "tools/", "tests/", "benchmarks/", "docs/", "packaging/", "etc/")


def tests_of_the_tree():
    declared = re.compile(r"^TEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\)", re.MULTILINE)
    sources = ROOT.glob("tests/**/*_test.cpp")
    return {f"{suite}.{name}" for source in sources for suite, name in declared.findall(source.read_text())}


def faults_of(page, tests):
    text = page.read_text()
    prose = re.sub(r"```.*?```", "", text, flags=re.DOTALL)
    for name in re.findall(r"`([A-Z]\w+\.[A-Z]\w+)(?:/\w*)?`", prose):
        if name not in tests and not (ROOT / name).exists():
            yield f"there is no test {name}"
    for path in re.findall(r"`((?:%s)[\w./-]*)`" % "|".join(ROOMS), prose):
        if path.startswith("etc/efficiency_manager"):
            continue  # below a quota directory
        if not (ROOT / path).exists() and not (ROOT / f"{path}.in").exists():
            yield f"there is no file {path}"
    for link in re.findall(r"\]\(([^)#:]+)(?:#[\w-]*)?\)", prose):
        if not (page.parent / link).exists():
            yield f"a link leads to {link}, which is not there"


def main():
    tests = tests_of_the_tree()
    pages = [*ROOT.glob("*.md"), *ROOT.glob("docs/*.md")]
    assert len(tests) > 50 and len(pages) > 8, "the tree was not found"
    faults = [f"{page.relative_to(ROOT)}: {fault}" for page in pages for fault in faults_of(page, tests)]
    print("\n".join(faults) or f"{len(pages)} documents fit the tree")
    return 1 if faults else 0


sys.exit(main())
