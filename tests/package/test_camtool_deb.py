"""camtool's Debian package as a technician installs it: its dependencies
name the package of every library the program loads, lintian finds no error,
and installed with dpkg -i into a fresh Debian 12 root (the missing
dependencies then fetched by apt) and onto this machine, camtool runs from
it with its man page and completion in place, and goes away again with
dpkg -r."""

import os
import re
import shutil
import subprocess

import pytest

MIRROR = os.environ.get("PACKAGE_TEST_MIRROR", "http://deb.debian.org/debian")


def run(argv, **kw):
    kw.setdefault("capture_output", True)
    kw.setdefault("text", True)
    return subprocess.run([str(a) for a in argv], **kw)


def field(deb, name):
    return run(["dpkg-deb", "-f", deb, name], check=True).stdout.strip()


def check_installed_camtool(prefix, version):
    """camtool as installed: runs, and its man page and completion are where
    man and bash-completion look."""
    out = run([*prefix, "camtool", "--version"], check=True).stdout
    assert out.strip() == f"camtool {version}"
    search = run([*prefix, "camtool", "search", "--help"], check=True).stdout
    assert "--wait" in search and "--watch" in search
    listed = run([*prefix, "dpkg", "-L", "camtool"], check=True).stdout.split()
    assert {"/usr/bin/camtool", "/usr/share/man/man1/camtool.1.gz",
            "/usr/share/bash-completion/completions/camtool",
            "/usr/share/doc/camtool/copyright"} <= set(listed)


def test_depends_names_the_package_of_every_library_camtool_loads(camtool_deb, tmp_path):
    run(["dpkg-deb", "-x", camtool_deb, tmp_path], check=True)
    needed = re.findall(r"\(NEEDED\).*\[(.+)\]",
                        run(["readelf", "-d", tmp_path / "usr/bin/camtool"], check=True).stdout)
    depends = {d.split()[0] for d in field(camtool_deb, "Depends").split(", ")}
    for lib in needed:
        owners = run(["dpkg", "-S", f"*/{lib}"], check=True).stdout
        pkgs = {line.split(":")[0] for line in owners.splitlines()}
        assert pkgs & depends, f"{lib} ({sorted(pkgs)}) is not in Depends: {sorted(depends)}"


def test_lintian_finds_no_errors_or_warnings(camtool_deb):
    if shutil.which("lintian") is None:
        pytest.fail("no lintian (tools/setup-deps installs it)")
    out = run(["lintian", "--fail-on", "error,warning", camtool_deb])
    assert out.returncode == 0, out.stdout + out.stderr


def test_dpkg_i_into_a_fresh_debian_root(camtool_deb, as_root, version, tmp_path):
    if shutil.which("mmdebstrap") is None:
        pytest.fail("no mmdebstrap (tools/setup-deps installs it)")
    root = tmp_path / "root"
    try:
        fresh_root_install(camtool_deb, version, root)
    finally:
        shutil.rmtree(root, ignore_errors=True)


def fresh_root_install(camtool_deb, version, root):
    made = run(["mmdebstrap", "--variant=minbase", "bookworm", root,
                f"deb {MIRROR} bookworm main"])
    assert made.returncode == 0, made.stderr[-2000:]
    shutil.copy(camtool_deb, root / "tmp/camtool.deb")
    shutil.copy("/etc/resolv.conf", root / "etc/resolv.conf")
    chroot = ["chroot", root]
    env = dict(os.environ, DEBIAN_FRONTEND="noninteractive")
    installed = run([*chroot, "dpkg", "-i", "/tmp/camtool.deb"], env=env)
    if installed.returncode != 0:
        # What a fresh machine lacks: dpkg names it, apt fetches it.
        assert "dependency problems" in installed.stderr, installed.stderr
        run([*chroot, "apt-get", "update", "-qq"], env=env, check=True)
        fixed = run([*chroot, "apt-get", "install", "-f", "-y", "-qq", "--no-install-recommends"],
                    env=env)
        assert fixed.returncode == 0, fixed.stdout + fixed.stderr
    check_installed_camtool(chroot, version)
    removed = run([*chroot, "dpkg", "-r", "camtool"], env=env)
    assert removed.returncode == 0, removed.stderr
    assert not (root / "usr/bin/camtool").exists()
    assert not (root / "usr/share/man/man1/camtool.1.gz").exists()


def test_dpkg_i_onto_this_machine_and_dpkg_r(camtool_deb, as_root, version):
    state = run(["dpkg-query", "-W", "-f=${Status}", "camtool"]).stdout
    if "ok installed" in state:
        pytest.skip("camtool is already installed here; not touching it")
    if shutil.which("camtool"):
        pytest.skip(f"another camtool is on the PATH: {shutil.which('camtool')}")
    try:
        installed = run(["dpkg", "-i", camtool_deb])
        assert installed.returncode == 0, installed.stdout + installed.stderr
        check_installed_camtool([], version)
        assert run(["man", "-w", "camtool"]).stdout.strip() == "/usr/share/man/man1/camtool.1.gz"
    finally:
        removed = run(["dpkg", "--purge", "camtool"])
    assert removed.returncode == 0, removed.stderr
    assert not os.path.exists("/usr/bin/camtool")
    assert "ok installed" not in run(["dpkg-query", "-W", "-f=${Status}", "camtool"]).stdout
