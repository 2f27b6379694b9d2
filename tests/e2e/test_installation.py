"""The board's tree with its init script, and the Debian packages: installed in a fresh box, and used there."""

import os
import pathlib
import re
import shutil
import signal
import subprocess
import time
import uuid

import pytest

import box
import workshop

BUILD = pathlib.Path("build/release")
PID_FILE = pathlib.Path("/var/run/zel.pid")
OLD_SETTINGS = pathlib.Path("/config/agent.configuration.old")
UNIT = "/lib/systemd/system/zel.service"
DPKG = ["dpkg", "--force-depends", "--log=/tmp/dpkg.log"]  # this box knows no other package

pytestmark = pytest.mark.skipif(box.SANITIZED, reason="the release is what is installed")


def init(action, status=0, tools=""):
    done = subprocess.run(["/etc/init.d/zel", action], capture_output=True, text=True, timeout=60,
                          env={**os.environ, "PATH": tools + os.environ["PATH"]})
    assert done.returncode == status, done
    assert bool(done.stderr) == (status in (2, 5)), done
    return done.stdout


def pid():
    return int(PID_FILE.read_text())


def serves():
    box.wait_until(box.is_serving, "the agent serves")
    assert "getDeviceInformationResponse" in box.call("getDeviceInformation")


def ended(process):
    return not os.path.lexists(f"/proc/{process}/exe")


def without_files():
    for path in (box.CONFIGURATION, OLD_SETTINGS, pathlib.Path("/config/wlan.mac")):
        path.unlink(missing_ok=True)


@pytest.fixture
def board():
    shutil.rmtree("/app/zel/protocols")
    subprocess.run(["cp", "-a", f"{BUILD}/tree/.", "/"], check=True)
    without_files()
    yield
    subprocess.run(["/etc/init.d/zel", "stop"], check=True)


@pytest.fixture(params=["busybox", "debian"])
def tools(request, tmp_path):
    """What to put in front of the PATH: the small tools of a board, or none."""
    if request.param == "debian":
        return ""
    for name in ("start-stop-daemon", "readlink", "sleep", "rm", "cp"):
        (tmp_path / name).symlink_to("/bin/busybox")
    return f"{tmp_path}:"


def test_the_init_script(board, tools):
    assert init("status", 3, tools) == "zel does not run\n"
    assert init("stop", 0, tools) == "zel does not run\n"
    assert init("start", 0, tools) == f"zel started, process {pid()}\n"
    serves()
    assert box.CONFIGURATION.stat().st_mode & 0o777 == 0o600
    first = pid()
    assert init("start", 0, tools) == f"zel runs already, process {first}\n"
    # An update may have replaced the file.
    shutil.copy2("/app/zel/zel", "/app/zel/zel.new")
    os.rename("/app/zel/zel.new", "/app/zel/zel")
    assert init("status", 0, tools) == f"zel runs, process {first}\n"
    assert init("restart", 0, tools) == f"zel stopped\nzel started, process {pid()}\n"
    assert pid() != first and ended(first)
    serves()
    os.kill(pid(), signal.SIGKILL)
    box.wait_until(lambda: ended(pid()), "it is gone")
    assert "left /var/run/zel.pid" in init("status", 1, tools)
    init("start", 0, tools)
    assert init("stop", 0, tools) == "zel stopped\n"
    assert not PID_FILE.exists() and not box.is_serving()
    assert init("nonsense", 2, tools) == ""


def test_a_board_starts_it_again(board):
    keeper = subprocess.Popen(["/etc/init.d/zel", "keep"], stdout=subprocess.DEVNULL)
    try:
        init("start")
        first = pid()
        os.kill(first, signal.SIGKILL)
        box.wait_until(lambda: pid() != first, "it is started again")
        serves()
        init("stop")
        time.sleep(5)  # two looks
        init("status", 3)
    finally:
        keeper.kill()
        keeper.wait()


def test_the_init_script_harms_nobody(board):
    bystander = subprocess.Popen(["sleep", "1000"])
    PID_FILE.write_text(f"{bystander.pid}\n")
    init("status", 1)
    init("stop")
    assert bystander.poll() is None
    bystander.kill()
    bystander.wait()
    OLD_SETTINGS.write_text("tavo.color=red\n")
    init("start")
    assert not box.CONFIGURATION.exists(), "the agent takes up the old file"
    init("stop")
    without_files()
    os.rename("/app/zel/zel", "/app/zel/away")
    init("start", 5)
    os.rename("/app/zel/away", "/app/zel/zel")


# What a container's first process finds, in a control group of its own, and only that one unit.
BOOT = """set -e
export container=simbox
mount --make-rprivate /
mkdir -p /mnt /sys
mount -t tmpfs sys /sys
mkdir -p /sys/fs/cgroup
mount -t cgroup2 groups /sys/fs/cgroup
mkdir $GROUP $GROUP/unit || exit 77
trap 'find $GROUP -depth -type d -exec rmdir {} +' EXIT
(
    sh -c 'echo $PPID > $GROUP/unit/cgroup.procs'
    exec unshare --cgroup --mount --pid --fork sh -c '
        set -e
        umount /sys/fs/cgroup
        mount -t cgroup2 groups /sys/fs/cgroup
        mount --bind /run /run
        mount -t proc proc /mnt
        mount --rbind /proc/sys /mnt/sys
        mount --rbind /proc/bus /mnt/bus
        mount --move /mnt /proc
        mkdir -p /proc/sys/kernel/random
        cat /.proc/sys/kernel/random/boot_id > /proc/sys/kernel/random/boot_id
        hostname > /etc/hostname
        exec /lib/systemd/systemd --system --unit=zel.service'
)
"""
OUTPUT = pathlib.Path("/run/zel.out")
ALONE = f"[Unit]\nDefaultDependencies=no\n[Service]\nStandardOutput=append:{OUTPUT}\n"


class Systemd:
    """A systemd that runs the unit of the package in this box, with all that the unit asks for."""

    def __init__(self):
        settings = pathlib.Path("/run/systemd/system/zel.service.d/alone.conf")
        settings.parent.mkdir(parents=True)
        settings.write_text(ALONE)
        group = f"/sys/fs/cgroup/simbox-{uuid.uuid4()}"
        self.process = subprocess.Popen(["unshare", "--cgroup", "--mount", "sh", "-c", BOOT],
                                        env={**os.environ, "GROUP": group})
        box.wait_until(lambda: oldest("systemd") or self.process.poll(), "systemd runs")
        if self.process.returncode == 77:
            pytest.skip("an ordinary user may make no control groups")
        self.first = oldest("systemd")

    def control(self, *arguments):
        return subprocess.run(["nsenter", f"--target={self.first}", "--mount", "--pid", "systemctl", *arguments],
                              capture_output=True, text=True, check=True).stdout

    def __enter__(self):
        return self

    def __exit__(self, *_):
        os.kill(int(self.first), signal.SIGKILL)
        self.process.wait(20)
        shutil.rmtree("/run/systemd")


def oldest(name):
    """The first process of that name; what it forks has the name, too, for a moment."""
    return subprocess.run(["pgrep", "-o", "-x", name], capture_output=True, text=True).stdout.strip()


def agent():
    """Its process, with what the unit lets it see and do."""
    return pathlib.Path("/proc", box.wait_until(lambda: oldest("Zel::main"), "the agent runs"))


def zelctl(*arguments):
    done = subprocess.run(["nsenter", "--net=/run/netns/client", "/usr/bin/zelctl", *arguments],
                          capture_output=True, text=True, timeout=120)
    assert done.returncode == 0, done
    return done.stdout


def shown(path):
    return box.exchange(f"GET /web/show.jsp?file={path} HTTP/1.0\r\n\r\n".encode()).decode()


@pytest.fixture
def packages():
    for name in ("info", "updates", "triggers"):
        pathlib.Path("/var/lib/dpkg", name).mkdir(parents=True, exist_ok=True)
    pathlib.Path("/var/lib/dpkg/status").touch()
    pathlib.Path("/var/lib/avahi-autoipd").mkdir(exist_ok=True)  # comes with that package
    shutil.rmtree("/app/zel", ignore_errors=True)
    without_files()
    subprocess.run([*DPKG, "--install", *BUILD.glob("packages/*.deb")], check=True)
    yield
    subprocess.run([*DPKG, "--purge", "zel", "zelctl"], check=True)


def test_the_packages(packages):
    assert not oldest("Zel::main"), "not before it is enabled"
    assert box.CONFIGURATION.stat().st_mode & 0o777 == 0o600
    verified = subprocess.run(["systemd-analyze", "verify", UNIT], capture_output=True, text=True, timeout=60)
    assert (verified.returncode, verified.stdout + verified.stderr) == (0, "")
    exposure = subprocess.run(["systemd-analyze", "security", "--offline=true", UNIT], capture_output=True, text=True)
    assert float(re.search(r"Overall exposure level .*: ([\d.]+)", exposure.stdout)[1]) <= 3.9

    subprocess.run([*DPKG, "--remove", "zel"], check=True)
    assert box.CONFIGURATION.exists() and not os.path.exists("/app/zel/zel")
    pathlib.Path("/config/keypass").write_text("secret\n")
    subprocess.run([*DPKG, "--purge", "zel", "zelctl"], check=True)
    assert not os.path.exists("/config") and not os.path.exists("/usr/bin/zelctl")


def test_the_unit(packages):
    box.CONFIGURATION.write_text(workshop.PLAIN)
    with workshop.Manager("application-update") as manager, Systemd() as systemd:
        log = agent() / "root/tmp/log/nativezel.log"
        box.wait_until(lambda: "* SignIn succeed" in log.read_text(), "it has signed in", 120)
        assert manager.problems() == []
        assert "Rebooting after update" in log.read_text()
        assert pathlib.Path("/app/zel/images/application/state").read_text() == "clean\n"
        serves()
        assert "Seccomp:\t2" in (agent() / "status").read_text()
        # Every kind of address, with what each tool needs.
        zelctl("mode", box.BOX, "linklocal")
        found = box.wait_until(lambda: re.search(r"^169\.254\.\S+", zelctl("find", "--wait", "2"), re.M),
                               "a link-local address", 90)
        zelctl("mode", found[0], "dhcp")
        box.wait_until(lambda: box.BOX in zelctl("find", "--wait", "2"), "an address by DHCP", 90)
        assert pathlib.Path("/config/wlan.mac").exists(), "it may write there"
        # What strangers get to read: little, and nothing of the machine's /tmp.
        assert "root:" in shown("/tmp/../etc/passwd")
        assert "FILE NOT FOUND" in shown("/tmp/../etc/shadow") and "FILE NOT FOUND" in shown("/tmp/dpkg.log")
        assert "starting on TAVO" in zelctl("log")

        zelctl("reserve", box.BOX, "--owner", "me")
        assert box.rules()
        first = agent()
        os.kill(int(first.name), signal.SIGKILL)
        box.wait_until(lambda: agent() != first, "it is started again")
        serves()
        assert box.rules() == []
        systemd.control("stop", "zel")
        assert "Result=success" in systemd.control("show", "zel")
        output = OUTPUT.read_text()
        assert not re.search("denied|not permitted|Read-only", output), output
