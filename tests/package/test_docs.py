"""Generated sections of the documentation, and figures that the documentation shares with the code."""

from __future__ import annotations

import importlib.metadata
import re
import shlex
import sys
from pathlib import Path

import pytest

import quillon
from quillon import __main__ as command_line
from quillon._kernels import EXPANSIONS
from quillon.formats import FORMATS, WEIGHT_FORMATS

ROOT = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "tools"), str(ROOT / "benchmarks")]

import api_reference  # noqa: E402
import format_files  # noqa: E402
import transcripts  # noqa: E402
from sections import section, with_section, write_section  # noqa: E402

PAGE = "by hand\n<!-- begin a: written by x -->\nold\n<!-- end a -->\nby hand too\n"


def test_a_section_is_replaced_and_the_rest_kept(tmp_path: Path) -> None:
    assert section(PAGE, "a") == "old\n"
    assert with_section(PAGE, "a", "new\nlines") == PAGE.replace("old", "new\nlines")
    file = tmp_path / "page.md"
    file.write_text(PAGE)
    write_section(file, "a", "new\n")
    assert file.read_text() == PAGE.replace("old", "new")


@pytest.mark.parametrize("page", ["no markers", PAGE + PAGE, PAGE.replace("end a", "end b")])
def test_a_section_must_be_there_once(page: str) -> None:
    with pytest.raises(ValueError, match="sections 'a' where there must be one"):
        with_section(page, "a", "new")


@pytest.mark.parametrize("page", ["performance.md", "performance_tables.md"])
@pytest.mark.parametrize("name", ["times", "models", "gpu_code"])
def test_performance_pages_have_a_section_for_each_part(page: str, name: str) -> None:
    assert section((ROOT / "docs" / page).read_text(), name).strip()


def test_where_a_format_is() -> None:
    """The table of docs/architecture.md is what its command writes, and its links lead to files."""
    written = section(format_files.PAGE.read_text(), format_files.SECTION)
    assert written == format_files.table() + "\n", "run: python tools/format_files.py"
    links = re.findall(r"\]\(\.\./([^)]+)\)", written)
    assert len(links) == 3 * len(WEIGHT_FORMATS) + len({kernel.header for kernel in EXPANSIONS})
    assert [link for link in links if not (ROOT / link).is_file()] == []


def test_formats_at_a_glance() -> None:
    """Code, name, elements, bytes, bits and storage of docs/formats.md are those of the registry."""
    page = (ROOT / "docs" / "formats.md").read_text()
    rows = re.findall(r"^\| (\d+) \| (\w+) \| (\d+) \| (\d+) \| ([\d.]+) \| (\w+) \|", page, re.MULTILINE)
    assert [(int(row[0]), row[1], int(row[2]), int(row[3]), float(row[4]), row[5]) for row in rows] == [
        (f.code, f.name, f.elements, f.bytes, f.bits_per_weight, f.storage) for f in FORMATS.values()
    ]


def test_the_reference_is_that_of_the_docstrings() -> None:
    assert (ROOT / "docs" / "api.md").read_text() == api_reference.page(), "run: python tools/api_reference.py"
    described = {
        f"quillon.{name}" for _, module, items in api_reference.GROUPS for name, _ in items if module == "quillon"
    }
    modules = {"formats", "nn"}
    assert {f"quillon.{name}" for name in quillon.__all__ if name not in modules} <= described


def test_messages_of_the_troubleshooting_page_exist() -> None:
    """Each message that the page explains is one that the code gives."""
    page = (ROOT / "docs" / "troubleshooting.md").read_text()
    messages = re.findall(r"^\| (?:transformers: )?`([^`]+)` \|", page, re.MULTILINE)
    assert len(messages) > 25
    sources = [*ROOT.glob("python/quillon/**/*.py"), *ROOT.glob("csrc/**/*.cpp"), *ROOT.glob("csrc/**/*.h")]
    # Messages run over several lines of literals.
    joined = re.sub(r'"\s*\n\s*f?"', "", "\n".join(file.read_text() for file in sources))
    assert [one for one in messages if one not in joined and "Unknown quantization type" not in one] == []


def test_commands_of_the_documentation_exist() -> None:
    """Those in blocks parse as they stand; of those in a sentence the command and its options exist."""
    parser = command_line._parser()
    (commands,) = (action.choices for action in parser._actions if action.dest == "command")
    assert isinstance(commands, dict)
    seen = set()
    for page in [ROOT / "README.md", ROOT / "CONTRIBUTING.md", *(ROOT / "docs").glob("*.md")]:
        text = page.read_text()
        for line in re.findall(r"^    .*\bpython -m quillon (.*)", text, re.MULTILINE):
            words = shlex.split(re.split(r" [&|](?: |$)", line)[0], comments=True)
            seen.add(parser.parse_args(words).command)
        for inline in re.findall(r"`python -m quillon ([a-z][^`]*)`", text):
            name, *words = inline.split()
            assert name in commands, inline
            options = {word for word in words if word.startswith("--") and name != "transformers"}
            assert options <= set(commands[name]._option_string_actions), inline
    assert seen == set(commands)


def test_transcripts_are_those_of_their_commands(capsys: pytest.CaptureFixture[str]) -> None:
    page = transcripts.PAGE.read_text()
    for name in ("session", "server"):
        there = transcripts.blocks(section(page, name))
        lines = [command.line for command in transcripts.COMMANDS if command.section == name]
        assert list(there) == lines, "run: python tools/transcripts.py"
        assert "".join(there.values()) == section(page, name)
    # One whose output is the same on every machine.
    (command,) = (command for command in transcripts.COMMANDS if command.name == "formats")
    words = shlex.split(command.line.removeprefix("python -m quillon "))
    assert command_line.main([*words, "--device-class", "unknown"]) == 0
    output = transcripts.shown(command, capsys.readouterr().out)
    assert transcripts.written(command, output) == transcripts.blocks(section(page, "session"))[command.line]


def test_what_is_left_out_of_a_transcript() -> None:
    command = transcripts.Command("a", "a --b", first=1, last=1)
    assert transcripts.shown(command, "1 \n2\n") == ["1", "2"]
    output = transcripts.shown(command, "1\n2\n\n4\n")
    assert output == ["1", "…", "4"]
    text = transcripts.written(command, output) + transcripts.written(transcripts.Command("c", "c"), ["$5", "", "6"])
    assert text == "    $ a --b\n    1\n    …\n    4\n    $ c\n    $5\n\n    6\n"
    assert transcripts.blocks(text) == {
        "a --b": "    $ a --b\n    1\n    …\n    4\n",
        "c": "    $ c\n    $5\n\n    6\n",
    }


def test_links_of_the_documentation_lead_somewhere() -> None:
    pages = [ROOT / "README.md", ROOT / "CONTRIBUTING.md", *(ROOT / "docs").glob("*.md")]
    for page in pages:
        links = re.findall(r"\]\(([^)#:\s]+)(?:#[^)]*)?\)", page.read_text())
        assert [link for link in links if not (page.parent / link).exists()] == [], page.name


def test_every_format_is_in_the_picture() -> None:
    import plot

    assert sorted(point.format for point in plot.points()) == sorted(WEIGHT_FORMATS)
    drawn = (ROOT / "docs" / "formats.svg").read_text()
    assert [name for name in WEIGHT_FORMATS if f">{name}<" not in drawn] == []


def test_changes_name_the_version() -> None:
    """The newest version of CHANGELOG.md is the one that is built, as the installed package says."""
    (declared,) = re.findall(r'^version = "([^"]+)"', (ROOT / "pyproject.toml").read_text(), re.MULTILINE)
    headings = re.findall(r"^## (\d\S*)", (ROOT / "CHANGELOG.md").read_text(), re.MULTILINE)
    assert headings[0] == declared
    assert quillon.__version__ == importlib.metadata.version("quillon")
