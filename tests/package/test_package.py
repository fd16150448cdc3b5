"""The Debian packages, installed, used and removed for real, but only in the mount
namespace that .ci/package has made for this process: /usr, /etc and /var become
overlays whose upper side is in memory, /run is empty. The tests build on each other.
"""

import configparser
import gzip
import os
import re
import shlex
import socket
import subprocess
import sys
from pathlib import Path

import pytest
from lab import DEADLINE, wait_for

PACKAGES = Path(__file__).resolve().parents[2] / "build/package/packages"
EXAMPLES = Path("/usr/share/doc/http-client-dev/examples")
UNIT = "/lib/systemd/system/http_client.service"
ENABLED = Path("/etc/systemd/system/multi-user.target.wants/http_client.service")


def run(*command) -> str:
    # A TMPDIR of the operator's own must not mislead anything.
    done = subprocess.run(command, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          env=os.environ | {"TMPDIR": "/nowhere"}, timeout=300)
    assert done.returncode == 0, f"{command} ended with {done.returncode}:\n{done.stdout}"
    return done.stdout


def operator(*commands: str) -> str:
    return run("http_client_cli", *(word for c in commands for word in ("-c", c)))


@pytest.fixture(scope="module", autouse=True)
def machine():
    if os.environ.get("OUTER_NAMESPACE") in (None, os.readlink("/proc/self/ns/mnt")):
        pytest.exit("these tests install packages: run .ci/package", returncode=1)
    run("mount", "--make-rprivate", "/")
    run("mount", "-t", "tmpfs", "layers", "/mnt")
    for lower in ("/usr", "/etc", "/var"):
        upper, work = "/mnt/upper" + lower, "/mnt/work" + lower
        run("mkdir", "-p", upper, work)
        run("mount", "-t", "overlay", "-o", f"lowerdir={lower},upperdir={upper},workdir={work}",
            "overlay", lower)
    run("mount", "-t", "tmpfs", "-o", "mode=755", "run", "/run")
    run("ip", "link", "set", "lo", "up")


class Service:
    """Runs the daemon as the unit has the service manager run it."""

    def __init__(self) -> None:
        parser = configparser.RawConfigParser(strict=False)
        parser.optionxform = str
        parser.read(UNIT)
        unit = parser["Service"]
        lines = Path(unit["EnvironmentFile"].removeprefix("-")).read_text().splitlines()
        self.env = env = dict(pair.split("=", 1) for pair in unit["Environment"].split() + [
            line for line in lines if line and not line.startswith("#")])
        for kind, root in (("Runtime", "/run/"), ("State", "/var/lib/")):
            folder = Path(root + unit[kind + "Directory"])
            folder.mkdir(exist_ok=True)
            folder.chmod(int(unit[kind + "DirectoryMode"], 8))
        capabilities = unit["CapabilityBoundingSet"].lower().replace("cap_", "+").split()
        command = [word for part in unit["ExecStart"].split()
                   for word in (shlex.split(env[part[1:]]) if part[0] == "$" else [part])]
        self.command = [
            "setpriv", "--no-new-privs", "--inh-caps=-all",
            "--bounding-set=-all," + ",".join(capabilities),
            "prlimit", f"--data={int(unit['LimitDATA'].removesuffix('M')) << 20}", *command]

    def start(self) -> None:
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.bind("\0manager")
            manager.settimeout(DEADLINE)
            self.process = subprocess.Popen(self.command, env=self.env | {
                "NOTIFY_SOCKET": "@manager", "TQ_THREAD_SPEED": "60"})
            assert [manager.recv(100), manager.recv(100)] == [b"READY=1", b"WATCHDOG=1"]

    def end(self) -> None:
        assert self.process.poll() is None, "the daemon has ended by itself"
        self.process.kill()
        self.process.wait()


@pytest.fixture(scope="module")
def service(machine):
    run("dpkg", "--install", "--force-unsafe-io", *PACKAGES.glob("*.deb"))
    service = Service()
    service.start()
    yield service
    service.end()


def test_service_manager_accepts_the_unit(service):
    assert run("systemd-analyze", "verify", "--man=no", UNIT) == ""
    run("systemd-analyze", "security", "--offline=true", "--threshold=30", UNIT)
    assert ENABLED.is_symlink()


def test_app_built_with_the_sdk_is_updated(service, scratch, tmp_path):
    flags = run("pkg-config", "--cflags", "--libs", "http_update").split()
    app = tmp_path / "app"
    run("cc", "-std=c11", "-Wall", "-Wextra", "-Wpedantic", "-Werror", "-D_DEFAULT_SOURCE",
        "-include", "http_update_packets.h", EXAMPLES / "app.c", *flags, "-o", app)
    release = tmp_path / "releases/modem/2.0/modem.img"
    release.parent.mkdir(parents=True)
    release.write_bytes(os.urandom(100_000))
    scratch.spawn("server", [sys.executable, "-u", EXAMPLES / "lab_server/lab_server.py",
                             "--port", "0", release.parents[2]])
    port = wait_for(lambda: re.search(r":(\d+)/", scratch.output("server")), "for a port")[1]
    # Another user's directory, which only the capabilities let the daemon write to.
    save = tmp_path / "saved"
    save.mkdir(mode=0o755)
    os.chown(save, 65534, 65534)

    scratch.spawn("app", [app, "modem", "1.0", f"{save}/"], env=service.env)
    wait_for(lambda: "modem is registered" in scratch.output("app"), "to register")
    operator("configure", "http update mode manual",
             f"http update server 127.0.0.1 port {port}", "end", "write", "http update all")
    wait_for(lambda: re.search(r"modem +2\.0", operator("show http-update info version")),
             "for the app's answer")
    assert f"installed {save}/modem.img" in scratch.output("app")
    assert (save / "modem.img").read_bytes() == release.read_bytes()


def test_only_root_gets_at_the_daemon(service):
    service.end()
    service.start()
    assert "http update server 127.0.0.1 port" in operator("show running-config")
    stranger = subprocess.run(
        ["setpriv", "--reuid=65534", "--clear-groups", "http_client_cli", "-c", "write"],
        capture_output=True, text=True)
    assert stranger.returncode == 2 and "Permission denied" in stranger.stderr
    data = Path("/var/lib/http_client")
    assert data.stat().st_mode & 0o077 == 0 and Path("/run/http_client").stat().st_mode & 0o077 == 0


def test_documents_name_what_is_installed(service):
    """Below /var is what comes at run time, or is somebody else's."""
    share = Path("/usr/share")
    for document in [*share.glob("doc/http-client*/*.md"), *share.glob("man/man*/http_client*"),
                     *Path("/usr/include").glob("http_update*")]:
        text = (gzip.open if document.suffix == ".gz" else open)(document, "rt").read()
        named = re.findall(r"(?<![\w./$])/(?:usr|etc|lib)/[\w./-]*http[\w./-]*\w",
                           text.replace("\\&", "").replace("\\-", "-"))
        assert [name for name in named if not Path(name).exists()] == [], document


def test_removal_keeps_and_purge_clears(service):
    run("dpkg", "--remove", "http-client-dev", "http-client")
    assert Path("/var/lib/http_client/oam/http_client/startup-config").exists()
    assert Path("/etc/http_client/device.conf").exists()
    run("dpkg", "--purge", "http-client-dev", "http-client")
    left = [*Path("/mnt/upper").rglob("*http_client*"), *Path("/mnt/upper").rglob("*http-client*")]
    shown = [path for path in left if path.exists() and "dpkg" not in path.parts]
    assert not shown
