"""camtool's man page and bash completion against the program itself: every
command and flag its --help lists is documented and completed, so a new
flag cannot ship without them; and the versions the package shows agree."""

import re
import subprocess
from pathlib import Path

import pytest
from conftest import TOP

MAN = TOP / "camtool/doc/camtool.1"
COMPLETION = TOP / "camtool/doc/camtool.bash-completion"
BASH_COMPLETION = Path("/usr/share/bash-completion/bash_completion")


def help_text(camtool, *words):
    return subprocess.run([camtool, *words, "--help"], capture_output=True, text=True,
                          check=True).stdout


def help_section(text, title):
    """The names listed under one heading of a --help text."""
    m = re.search(rf"^{title}:\n((?:  .*\n|\n(?=  ))*)", text, re.M)
    return re.findall(r"^  (\S+)", m.group(1), re.M) if m else []


def commands(camtool):
    """{"search": {"--json", ...}, "partner track": {...}, ...}: every command
    that runs something, with its flags (--help left out)."""
    found, todo = {}, [[]]
    while todo:
        words = todo.pop()
        text = help_text(camtool, *words)
        subs = help_section(text, "Subcommands")
        todo += [words + [s] for s in subs]
        if words and not subs:
            flags = {f.split(",")[-1] for f in help_section(text, "Options")}
            found[" ".join(words)] = flags - {"--help"}
    return found


@pytest.fixture(scope="module")
def camtool_commands(camtool_bin):
    found = commands(camtool_bin)
    assert {"search", "upgrade", "partner track", "broadcast production", "key new"} <= set(found)
    return found


def man_sections():
    """{command: its subsection's text, hyphens unescaped}."""
    text = MAN.read_text().replace("\\-", "-")
    sections = {}
    for m in re.finditer(r'^\.SS "([^"]*)"\n(.*?)(?=^\.S[SH] )', text, re.M | re.S):
        head, body = m.group(1), m.group(2)
        name = " ".join(w for w in head.split() if re.fullmatch(r"[a-z][a-z-]*", w))
        sections[name] = head + "\n" + body
    return sections


def test_man_page_has_every_command_with_every_flag(camtool_commands):
    sections = man_sections()
    for cmd, flags in camtool_commands.items():
        # A subsection is headed by the command's words (then its arguments).
        matching = [s for name, s in sections.items() if name.startswith(cmd)]
        assert matching, f"camtool.1 has no subsection for '{cmd}'"
        text = matching[0]
        missing = sorted(f for f in flags if not re.search(re.escape(f) + r"\b", text))
        assert not missing, f"camtool.1 '{cmd}' lacks {missing}"


def test_man_page_documents_the_exit_statuses_and_global_options(camtool_bin, version):
    text = MAN.read_text().replace("\\-", "-")
    top = set(help_section(help_text(camtool_bin), "Options"))
    for flag in {f.split(",")[-1] for f in top}:
        assert flag in text.split(".SH COMMANDS")[0], f"{flag} not among the global options"
    status = text.split(".SH EXIT STATUS")[1].split(".SH ")[0]
    assert re.findall(r"^\.B ([0-9])$", status, re.M) == ["0", "1", "2"]
    assert f'"camtool {version}"' in text.splitlines()[1]
    assert "--help" in help_text(camtool_bin, "search") and ".SH EXAMPLES" in text


def complete(line):
    """What the completion offers for a command line (the cursor at its end)."""
    if not BASH_COMPLETION.exists():
        pytest.fail(f"no {BASH_COMPLETION}: install bash-completion (tools/setup-deps)")
    script = f"""
source {BASH_COMPLETION}
source {COMPLETION}
COMP_LINE="$1"; COMP_POINT=${{#COMP_LINE}}
read -ra COMP_WORDS <<< "$1"
[[ "$1" == *" " ]] && COMP_WORDS+=("")
COMP_CWORD=$((${{#COMP_WORDS[@]}} - 1))
_camtool
printf '%s\\n' "${{COMPREPLY[@]}}"
"""
    out = subprocess.run(["bash", "-c", script, "complete", line], capture_output=True,
                         text=True, check=True).stdout
    return set(out.split())


def test_completion_offers_every_command_and_exactly_each_commands_flags(camtool_bin,
                                                                          camtool_commands):
    top = set(help_section(help_text(camtool_bin), "Subcommands"))
    assert complete("camtool ") == top
    for group in ("partner", "broadcast", "key"):
        assert complete(f"camtool {group} ") == set(help_section(help_text(camtool_bin, group),
                                                                 "Subcommands"))
    for cmd, flags in camtool_commands.items():
        offered = complete(f"camtool {cmd} --") - {"--help", "--iface"}
        assert offered == flags, f"'{cmd}': completion {sorted(offered)}, --help {sorted(flags)}"


def test_completion_skips_option_values_and_offers_fixed_values():
    assert complete("camtool --iface eth0 se") == {"search"}
    assert complete("camtool upgrade fw.zip --mode ") == {str(m) for m in range(1, 10)}
    assert complete("camtool confignet 10.0.0.9 --dhcp ") == {"on", "off"}
    assert complete("camtool flicker 10.0.0.9 ") == {"on", "off"}
    assert "restore-factory" in complete("camtool broadcast production 10.0.0.9 ")
    assert complete("camtool broadcast production 10.0.0.9 central-cross ") == {"on", "off"}
    assert complete("camtool upgrade fw.zip --to 10.0.0.9 --r") == {"--rate", "--retries"}


def test_the_versions_shown_agree(camtool_bin, version):
    out = subprocess.run([camtool_bin, "--version"], capture_output=True, text=True,
                         check=True).stdout
    assert out.strip() == f"camtool {version}"
    changelog = (TOP / "packaging/camtool/changelog.in").read_text()
    assert changelog.startswith(f"camtool ({version}) "), "add a changelog entry for the version"
