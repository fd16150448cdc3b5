"""What the host's libraries make of a device's files, its log and its service manager."""

import socket

import pytest
from lab import BIN_DIR, Device, Probe, Scratch, wait_for


@pytest.fixture
def write(probe: Probe):
    def write(name: str, content: str) -> None:
        path = probe.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(content)
    return write


def test_texts_come_from_description_then_os_release_then_firmware(probe: Probe, write) -> None:
    assert probe.run("texts") == "-|-|-|-|-|"
    write("proc/device-tree/model", "Board Rev 1\0")
    write("proc/device-tree/compatible", "maker,board\0maker,soc\0")
    write("etc/os-release",
          '# NAME=no\nNAME="Some Linux"\nVERSION_ID=12\nVERSION_CODENAME=bookworm\n')
    assert probe.run("texts") == "Some Linux|Board Rev 1|bookworm|12|maker,board|"
    write("sys/class/dmi/id/product_name", "Router 9\n")
    write("sys/class/dmi/id/product_version", "To be filled by O.E.M.\n")
    write("sys/class/dmi/id/board_version", "B.2  \n")
    assert probe.run("texts") == "Some Linux|Router 9|bookworm|12|B.2|"
    write("etc/http_client/device.conf",
          "#os_name=no\n os_name = OS%s_\r\nproject=P1\nproject_x=no\nrelease_type=\n"
          'release=1.0=b\nhw_version="V 2"')
    assert probe.run("texts") == "OS%s_|P1|bookworm|1.0=b|V 2|"


def test_only_a_whole_rule_binds(probe: Probe, write) -> None:
    assert probe.run("cpus") == "none", "no file"
    for rules, expected in {
        "http_client 0-1,3\n": "0 1 3 ",
        "# http_client 7\nother 1\n  http_client\t1023,0\r\nhttp_client 5": "0 1023 ",
        "http_clients 1\n": "none", "http_client 3-1\n": "none", "http_client 0,\n": "none",
        "http_client 1024\n": "none", "http_client 1x\n": "none",
        "http_client 99999999999999999999\n": "none",
    }.items():
        write("etc/http_client/cpu.rule", rules)
        assert probe.run("cpus") == expected, rules


def test_every_log_call_is_exactly_one_line(probe: Probe) -> None:
    lines = []
    for text, line in [
        ("convert source ip error!\r\n\n", "convert source ip error!"), ("%s%n", "%s%n"), ("", ""),
        ("[AB\nHTTPC DEBUG: forged\r]\t\x1b[2J\x7f é\n",
         "[AB\\nHTTPC DEBUG: forged\\r]\t\\x1b[2J\\x7f é"),
        ("x" * 9000, "x" * 2047), ("\x01" * 9000, "\\x01" * 1020),  # escapes fill the line
    ]:
        probe.run("log", text)
        lines.append(f"HTTPC DEBUG: {line}")
    assert (probe.root / "log").read_text().splitlines() == lines


def test_service_manager_is_told_readiness_and_each_reset(probe: Probe) -> None:
    for name in (f"{probe.root}/notify", f"\0{probe.root}/abstract"):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.bind(name)
            manager.setblocking(False)
            assert probe.run("health", NOTIFY_SOCKET=name.replace("\0", "@")) == "good good good "
            assert [manager.recv(100), manager.recv(100)] == [b"READY=1", b"WATCHDOG=1"]
    assert probe.run("health", NOTIFY_SOCKET="") == "good good good ", "nobody supervises"
    for name in ("/missing/socket", "relative/path", "@", "/" + "x" * 107):
        assert probe.run("health", NOTIFY_SOCKET=name) == "good bad bad ", name


def test_daemon_does_without_the_optional_calls_of_a_devices_libraries(scratch: Scratch) -> None:
    for name in ("libtqsys.so", "libclient_new.so"):
        (scratch.root / name).symlink_to(BIN_DIR.parent / "lib/libgiven_calls.so")
    device = Device(scratch)
    scratch.spawn("daemon", [BIN_DIR / "http_client.elf", "-de"],
                  env=device.environment(LD_LIBRARY_PATH=str(scratch.root)))
    wait_for((device.work / ".http_update").exists)
    for said in ("registration", "not founded", "haven't registered"):
        wait_for(lambda: said in scratch.output("daemon"), said)
    device.wait_log("[/proc/macaddr]<-->open fail [No such file or directory]")
