"""camtool for Windows as a technician gets it: the zip holds one folder
with camtool.exe, its README and the licence; the program is a 64-bit
Windows program that loads no library but Windows' own (a field laptop has
no compiler runtime); and under wine it answers --version and --help, and
`camtool search` run in a lab LAN finds the namespace cameras there, as a
table and as JSON.

Every wine here runs with a prefix of its own under the test's folder, and
the lab's is started inside the LAN namespace (wine makes its sockets in
its server process, so that must live in the namespace too) and stopped
before the LAN goes. The wine tests are skipped, saying so, only where
wine cannot start."""

import json
import os
import re
import shutil
import subprocess
import sys
import zipfile
from pathlib import Path

import pytest
from conftest import TOP, artifact

sys.path.insert(0, str(TOP / "tests" / "system"))
from rigfixtures import camera_factory, lan, run_session  # noqa: E402,F401  (fixtures)

WINE_RUN = TOP / "cmake" / "wine-run"
# What every Windows 10 has; anything else would have to travel in the zip.
WINDOWS_DLLS = {"advapi32.dll", "iphlpapi.dll", "kernel32.dll", "msvcrt.dll", "ws2_32.dll",
                "user32.dll", "bcrypt.dll", "shell32.dll", "ole32.dll"}


@pytest.fixture(scope="module")
def windows_zip(version):
    return artifact("camtool-{version}-windows-x86_64.zip")


@pytest.fixture(scope="module")
def unpacked(windows_zip, version, tmp_path_factory):
    d = tmp_path_factory.mktemp("camtool-windows")
    with zipfile.ZipFile(windows_zip) as z:
        names = sorted(z.namelist())
        z.extractall(d)
    top = f"camtool-{version}-windows-x86_64"
    assert names == [f"{top}/LICENSE", f"{top}/README.txt", f"{top}/camtool.exe"], names
    return d / top


def wine_env(prefix):
    return dict(os.environ, WINEPREFIX=str(prefix))


def stop_wine(prefix, runner=subprocess.run):
    for flag in ("-k", "-w"):
        runner(["env", f"WINEPREFIX={prefix}", "wineserver", flag], check=False, timeout=60)


@pytest.fixture(scope="module")
def wine(tmp_path_factory):
    """run(exe, *args): the program under wine (a prefix of this module's,
    made on the first start); skips when wine cannot start."""
    if shutil.which("wine") is None:
        pytest.skip("wine is not installed (tools/setup-deps installs it): Windows build untested")
    prefix = tmp_path_factory.mktemp("wine") / "prefix"

    def run(*argv, timeout=300):
        return subprocess.run([str(WINE_RUN), *map(str, argv)], env=wine_env(prefix),
                              capture_output=True, text=True, timeout=timeout)

    try:
        started = run("cmd", "/c", "echo", "wine-started")
    except (OSError, subprocess.TimeoutExpired) as e:
        pytest.skip(f"wine cannot start here: {e}")
    if "wine-started" not in started.stdout:
        pytest.skip(f"wine cannot start here: {started.stderr.strip()[-400:]}")
    yield run
    stop_wine(prefix)


def test_one_64_bit_program_that_needs_no_library_beside_windows_own(unpacked, version):
    exe = unpacked / "camtool.exe"
    data = exe.read_bytes()
    pe = int.from_bytes(data[0x3C:0x40], "little")
    assert data[:2] == b"MZ" and data[pe:pe + 4] == b"PE\0\0"
    assert int.from_bytes(data[pe + 4:pe + 6], "little") == 0x8664  # x86_64
    dump = subprocess.run(["x86_64-w64-mingw32-objdump", "-p", exe], capture_output=True,
                          text=True, check=True).stdout
    dlls = {d.lower() for d in re.findall(r"DLL Name: (\S+)", dump)}
    assert dlls and dlls <= WINDOWS_DLLS, f"loads {sorted(dlls - WINDOWS_DLLS)}"
    assert ".debug_info" not in dump  # stripped
    raw = (unpacked / "README.txt").read_bytes()
    assert raw.count(b"\n") == raw.count(b"\r\n")  # Windows line ends throughout
    readme = raw.decode()
    for words in (f"camtool {version} for Windows", "Firewall", "netsh", "camtool search",
                  "--iface", "Private"):
        assert words in readme


def test_version_and_help_under_wine(unpacked, wine, version):
    p = wine(unpacked / "camtool.exe", "--version")
    assert p.returncode == 0 and p.stdout.strip() == f"camtool {version}", p.stderr
    p = wine(unpacked / "camtool.exe", "search", "--help")
    assert p.returncode == 0 and "--wait" in p.stdout and "--watch" in p.stdout, p.stderr
    p = wine(unpacked / "camtool.exe", "query", "not-a-camera")
    assert p.returncode == 2 and "camtool:" in p.stderr


# -- the lab: namespace cameras (root; the daemon of this build)

@pytest.fixture(scope="module")
def upgrade_bin():
    if os.geteuid() != 0:
        pytest.skip("the camera lab needs root")
    found = [Path(os.environ["UPGRADE_BIN"])] if "UPGRADE_BIN" in os.environ else sorted(
        (TOP / "build").glob("host-*/upgrade"), key=lambda p: p.stat().st_mtime)
    if not found or not found[-1].is_file():
        pytest.fail("no daemon binary: set UPGRADE_BIN or build the 'upgrade' target")
    return found[-1]


@pytest.fixture(scope="module")
def rig_session(upgrade_bin):
    yield from run_session(upgrade_bin, "camera sandbox")


@pytest.fixture
def start_camera(rig_session, lan, request):
    import camera as rig
    yield from camera_factory(request, lambda **kw: rig.Camera(rig_session, lan, **kw),
                              "init socket succeed", 10.0)


def test_search_under_wine_in_a_lab_lan_finds_the_cameras(unpacked, wine, start_camera, lan,
                                                          tmp_path):
    cams = [start_camera() for _ in range(2)]
    prefix = tmp_path / "wine-in-lan"

    def camtool(*args):
        return lan.exec(["env", f"WINEPREFIX={prefix}", WINE_RUN, unpacked / "camtool.exe",
                         *map(str, args)], check=False, timeout=300)

    try:
        assert camtool("--version").returncode == 0  # makes the prefix, in the LAN
        p = camtool("search", "--wait", 3)
        assert p.returncode == 0, p.stderr
        for c in cams:
            assert re.search(rf"^{c.device_id}\s+{re.escape(c.ip)}\s+{c.mac}\s+off\s+V2.5.1\s+K1.T\s",
                             p.stdout, re.M), p.stdout
        assert p.stdout.rstrip().endswith("2 cameras"), p.stdout

        p = camtool("search", "--wait", 3, "--json")
        got = {j["device_id"]: j for j in map(json.loads, p.stdout.splitlines())}
        assert {k: j["ip"] for k, j in got.items()} == {c.device_id: c.ip for c in cams}

        # The adapters as Windows lists them: the bridge, named as on Linux.
        p = camtool("--iface", "nope", "search")
        assert p.returncode == 2 and "br0 (192.168.77.1)" in p.stderr, p.stderr
    finally:
        stop_wine(prefix, lambda argv, **kw: lan.exec(argv, **kw))
