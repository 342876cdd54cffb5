#!/usr/bin/env python3
"""Checks the Windows build's binaries with objdump -p, on the build machine.

- ZelvarPackCore.dll and the programs import from Windows system DLLs only:
  the compiler's runtimes, winpthread and zlib are linked in statically.
- The DLL exports the Java entry points and exactly the native surface that
  the Linux library exports (the list of tests/exports_test.cc), nothing of
  the standard library or the engine's internals beside them.

Exit status 0 when all holds; otherwise every finding is printed and the
status is 1.
"""
import argparse
import re
import subprocess
import sys

# DLLs every 64-bit Windows installation carries (compared case-blind).
SYSTEM_DLLS = {
    "kernel32.dll", "msvcrt.dll", "ucrtbase.dll", "user32.dll", "advapi32.dll", "ole32.dll",
    "oleaut32.dll", "gdiplus.dll", "gdi32.dll", "winhttp.dll", "odbc32.dll", "crypt32.dll",
    "ws2_32.dll", "shlwapi.dll", "bcrypt.dll", "ntdll.dll", "rpcrt4.dll", "shell32.dll",
}
JAVA_PREFIX = "Java_com_zelvarpack_"


def objdump(tool, path):
    return subprocess.run([tool, "-p", path], check=True, capture_output=True,
                          text=True).stdout


def imports(dump):
    return [line.split(":", 1)[1].strip() for line in dump.splitlines()
            if line.strip().startswith("DLL Name:")]


def exports(dump):
    """Names of the export table ([Ordinal/Name Pointer] Table section)."""
    names = []
    inside = False
    for line in dump.splitlines():
        if "[Ordinal/Name Pointer] Table" in line:
            inside = True
            continue
        if inside:
            match = re.match(r"\s*\[\s*\d+\]\s+(\S+)", line)
            if not match:
                break
            names.append(match.group(1))
    return names


def demangle(tool, names):
    out = subprocess.run([tool], input="\n".join(names), check=True, capture_output=True,
                         text=True).stdout.splitlines()
    string = "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >"
    return [line.replace(string, "std::string").replace("[abi:cxx11]", "") for line in out]


def c_array(source, name):
    """The string entries of `const char* const name[] = {...};` in source
    (adjacent literals joined, comments dropped)."""
    start = source.index(name + "[] = {")
    body = source[start:source.index("};", start)]
    body = re.sub(r"//[^\n]*", "", body[body.index("{") + 1:])
    entries = []
    current = None
    for literal, comma in re.findall(r'"((?:[^"\\]|\\.)*)"|(,)', body):
        if comma:
            if current is not None:
                entries.append(current)
            current = None
        else:
            current = (current or "") + literal
    if current is not None:
        entries.append(current)
    return entries


def spellings(entry):
    if entry.endswith("?const"):
        plain = entry[:-len("?const")]
        return {plain, plain + " const"}
    return {entry}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--objdump", required=True)
    parser.add_argument("--cxxfilt", required=True)
    parser.add_argument("--surface", required=True, help="tests/exports_test.cc")
    parser.add_argument("--java-entries", type=int, required=True)
    parser.add_argument("dll")
    parser.add_argument("programs", nargs="*")
    args = parser.parse_args()

    problems = []
    for binary in [args.dll] + args.programs:
        for dll in imports(objdump(args.objdump, binary)):
            if dll.lower() not in SYSTEM_DLLS:
                problems.append(f"{binary} imports {dll}, not a Windows system DLL")

    names = exports(objdump(args.objdump, args.dll))
    java = [name for name in names if name.startswith(JAVA_PREFIX)]
    if len(java) != args.java_entries:
        problems.append(f"{len(java)} Java entry points exported, expected {args.java_entries}")
    native = set(demangle(args.cxxfilt, [n for n in names if not n.startswith(JAVA_PREFIX)]))

    with open(args.surface, encoding="utf-8") as source_file:
        source = source_file.read()
    surface = c_array(source, "kNativeSurface")
    additions = c_array(source, "kAdditions")
    if len(surface) < 50:
        problems.append(f"only {len(surface)} entries read from {args.surface}")
    allowed = set(additions)
    for entry in surface:
        allowed |= spellings(entry)
        if not native & spellings(entry):
            problems.append(f"not exported: {entry}")
    for entry in additions:
        if entry not in native:
            problems.append(f"not exported: {entry}")
    for symbol in sorted(native - allowed):
        problems.append(f"exported beyond the surface: {symbol}")

    for problem in problems:
        print(problem)
    print(f"{len(java)} Java entries, {len(native)} native exports, "
          f"{len(surface) + len(additions)} surface entries, {len(problems)} problems")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
