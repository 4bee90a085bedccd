"""Fixtures of the package tests: the artifacts tools/package put in dist/
(or $UPGRADE_DIST), the camtool program of this build ($CAMTOOL_BIN) and
the project's version. The Windows zip's lab test also runs this build's
daemon ($UPGRADE_BIN) in namespace cameras.

The tests of an artifact are skipped, saying so, when dist/ does not hold
it; CI runs tools/package first. Installing needs root."""

import os
import re
import subprocess
from pathlib import Path

import pytest

TOP = Path(__file__).resolve().parents[2]


def project_version():
    text = (TOP / "CMakeLists.txt").read_text()
    return re.search(r"project\(\w+ VERSION ([0-9.]+)", text).group(1)


def artifact(pattern):
    dist = Path(os.environ.get("UPGRADE_DIST", TOP / "dist"))
    name = pattern.format(version=project_version())
    path = dist / name
    if not path.is_file():
        pytest.skip(f"no {path}: run tools/package first")
    return path


@pytest.fixture(scope="session")
def version():
    return project_version()


@pytest.fixture(scope="session")
def camera_archive():
    return artifact("upgrade-{version}-armhf.tar.gz")


@pytest.fixture(scope="session")
def camtool_deb():
    arch = subprocess.run(["dpkg", "--print-architecture"], capture_output=True, text=True,
                          check=True).stdout.strip()
    return artifact("camtool_{version}_" + arch + ".deb")


@pytest.fixture(scope="session")
def camtool_bin():
    path = os.environ.get("CAMTOOL_BIN")
    if path is None:
        found = [p for p in (TOP / "build").glob("host-*/camtool/camtool") if p.is_file()]
        if not found:
            pytest.fail("no camtool: build a host preset (or set CAMTOOL_BIN)")
        path = max(found, key=lambda p: p.stat().st_mtime)
    return Path(path)


@pytest.fixture
def as_root():
    if os.geteuid() != 0:
        pytest.skip("installing a package needs root")
