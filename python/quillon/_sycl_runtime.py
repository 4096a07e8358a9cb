"""Where the SYCL runtime is that pip installed: for the build, which runs this file, and for the start-up.

pip puts its headers into ``<prefix>/include`` and its libraries into ``<prefix>/lib``. The prefix is not always that of
the interpreter: an isolated build has an overlay of its own, and a virtual environment may see packages of another one.
This module imports the standard library alone.
"""

from __future__ import annotations

import importlib.metadata
import os
import sys
from pathlib import Path

_PACKAGES = ("intel-opencl-rt", "intel-sycl-rt", "dpcpp-cpp-rt")


def prefixes() -> list[Path]:
    """Return the prefixes whose packages this interpreter imports, in the order in which it looks."""
    sites = [Path(entry) for entry in sys.path if Path(entry).name in ("site-packages", "dist-packages")]
    # <prefix>/lib/python3.11/site-packages
    found = [site.parents[2] for site in sites if len(site.parents) > 2]
    return list(dict.fromkeys([*found, Path(sys.prefix), Path(sys.base_prefix)]))


def find(relative: str) -> Path | None:
    """Return the path of a file of the runtime, given as ``lib/libsycl.so`` for example, or None."""
    for prefix in prefixes():
        if (prefix / relative).is_file():
            return prefix / relative
    for package in _PACKAGES:
        try:
            files = importlib.metadata.files(package) or []
        except importlib.metadata.PackageNotFoundError:
            continue
        for file in files:
            path = Path(os.path.normpath(str(file.locate())))
            if path.as_posix().endswith("/" + relative) and path.is_file():
                return path
    return None


def main() -> int:
    """Print the folder of the headers and the library, a line each."""
    header, library = find("include/sycl/version.hpp"), find("lib/libsycl.so")
    if header is None or library is None:
        print("no include/sycl and lib/libsycl.so in", *prefixes(), file=sys.stderr)
        return 1
    print(header.parents[1], library, sep="\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())
