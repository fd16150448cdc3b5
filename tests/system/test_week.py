"""A week in the life of a device, at speed."""

import re
import signal

from lab import INCREMENTAL, MANUAL, App, Device, LabServer, Scratch, UpdateRequest, wait_for

SPEED = 6000
DAY = 86_400


def install_parts(app: App, request: UpdateRequest) -> tuple[int, str]:
    """Has the new version only when the last file has come."""
    return 0, request.records["version"] if request.files[-1].endswith("g3") else ""


class Week:
    """A device whose daily run is due whenever a new day begins."""

    def __init__(self, scratch: Scratch, server: LabServer) -> None:
        self.server = server
        self.device = Device(scratch)
        self.device.clock.used = True
        self.expected: dict[str, dict[str, bytes]] = {}

    def power_on(self) -> None:
        self.device.start("-die", speed=SPEED)

    def release(self, app: str, version: str, *names: str) -> None:
        self.expected[app] = self.server.release(app, version, {n: 50_000 for n in names})

    def next_day(self, runs: bool = True) -> None:
        """The same time a day later; waits until the daily run has asked."""
        asked = len(self.server.queries())
        self.device.clock.pass_time(DAY)
        if runs:
            wait_for(lambda: len(self.server.queries()) > asked, "for the daily run")

    def settled(self, **versions: str) -> None:
        """The apps have these versions, and nothing is left to do."""
        want = {name: text.replace("_", ".") for name, text in versions.items()}
        wait_for(lambda: self.device.versions() == want, f"for {want}")
        # The file is written at an app's end; the list lacks an app being fetched.
        wait_for(lambda: self.device.resume() == {}, "for the resume file to empty")
        assert self.device.cli("show http-update info resume") == "resume-list is empty\n"


def test_a_week(scratch: Scratch, server: LabServer) -> None:
    week = Week(scratch, server)
    device = week.device

    # Monday: the device is put into service; its configuration is saved.
    week.power_on()
    device.use(server)
    week.release("alpha", "2.0", "a1", "a2")
    week.release("beta", "2.0", "b1")
    device.app("alpha")
    device.app("beta", flags=MANUAL)
    device.daily_in(minutes=-2)
    device.cli("write")
    week.settled(alpha="2.0", beta="1.0")

    # Tuesday: an app joins. One of its files is not to be had until later.
    gamma = device.app("gamma", flags=INCREMENTAL, answer=install_parts)
    week.release("alpha", "2.1", "a1", "a2")
    week.release("gamma", "2.0", "g1", "g2", "g3")
    server.fault(path="*/g2", status=503)
    week.next_day()
    wait_for(lambda: device.resume().get("gamma") == [
        device.saved("gamma") + n for n in ("g2", "g3")])
    server.heal()
    week.settled(alpha="2.1", beta="1.0", gamma="2.0")
    assert [len(r.files) for r in gamma.requests] == [1, 2]

    # Wednesday: the power goes in the middle of a download, and comes back.
    week.release("alpha", "3.0", "a1", "a2")
    server.fault(path="*/3.0/a2", stall_after=30_000)
    week.next_day()
    server.wait_stalled("3.0/a2", 30_000)
    device.kill()
    server.heal()
    week.power_on()
    device.app("alpha", "2.1")
    device.app("beta", flags=MANUAL)
    gamma = device.app("gamma", "2.0", flags=INCREMENTAL, answer=install_parts)
    week.settled(alpha="3.0", beta="1.0", gamma="2.0")
    assert device.disk("alpha") == week.expected["alpha"]

    # Thursday: a file that never comes is given up after five more tries.
    delta = device.app("delta")
    server.release("delta", "2.0", {"d1": 1000, "d2": 1000})
    server.fault(path="*/d2", status=404)
    week.next_day()
    wait_for(lambda: len(server.requests("/d2$")) == 6)
    week.settled(alpha="3.0", beta="1.0", gamma="2.0", delta="1.0")
    server.heal()
    assert device.disk("delta") == {} and delta.requests == []
    delta.deregister("delta")

    # Friday: the operator takes over, also across a restart.
    device.configure("http update mode manual")
    device.cli("write")
    assert "beta: download and notify successfully." in device.cli("http update all")
    asked = len(server.queries())
    week.next_day(runs=False)
    device.kill()
    week.power_on()
    device.wait_log("http update mode is manual", 50)
    assert len(server.queries()) == asked
    device.configure("no http update mode")
    device.cli("write")
    device.app("alpha", "3.0")
    device.app("beta", "2.0")
    gamma = device.app("gamma", "2.0", flags=INCREMENTAL, answer=install_parts)
    wait_for(lambda: len(server.queries()) > asked)

    # Saturday: the server is away; nothing comes of it.
    week.release("beta", "2.1", "b1")
    server.fault(method="POST", drop=True)
    week.next_day()
    device.wait_log("update from server 127.0.0.1: Communicate with the server failed.")
    server.heal()

    # Sunday: it is back. Everybody has what the server has, and no more.
    week.release("gamma", "3.0", "g1", "g2", "g3")
    week.next_day()
    week.settled(alpha="3.0", beta="2.1", gamma="3.0")
    for name in ("alpha", "beta", "gamma"):
        assert device.disk(name) == week.expected[name]
    assert [len(r.files) for r in gamma.requests] == [3]
    assert device.resume_file.read_text() == '<?xml version="1.0"?>\n<filelist/>\n'
    then = re.search(r"daily (\d\d:\d\d)", device.cli("show running-config"))
    assert then is not None
    assert re.sub(r"(?m)^\d+ +(?=\d)", "FD ", device.cli("show http-update test")) == (
        "update mode:    auto-update\n"
        f"update server:  127.0.0.1\nupdate port:    {server.port}\n"
        "update uri:     /qb/11.x/update.asp\n"
        f"update time:    {then[1]}\n"
        "pro SerialNo:   SN0001\npro Name:       EG3210\n"
        "software:       LAB_EG3210 Release(1.0)\nhardware:       1.00\n"
        "mac:            00:11:22:33:44:55\nupdate source_ip:  0.0.0.0\n"
        "app-id     app-name      version            status\n"
        "------ --------------- -------------------- ------\n"
        "FD 0      alpha           3.0                  free  \n"
        "FD 1      beta            2.1                  free  \n"
        "FD 2      gamma           3.0                  free  \n")
    assert device.configure("no http update time") == ""
    device.daemon.terminate()
    assert device.daemon.wait(30) == -signal.SIGTERM
    device.daemon = None
