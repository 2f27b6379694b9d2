"""The board's tree with its init script, and the Debian packages: installed in a fresh box, and used there."""

import contextlib
import os
import pathlib
import re
import shutil
import signal
import subprocess
import time
import uuid

import pytest

import stage
from stage import BOX, CONFIGURATION, OLD_CONFIGURATION, is_serving, output_of, rules, wait_until

BUILD = pathlib.Path("build/release")
VERSION = re.search(r"^## \[([0-9.]+)\]", pathlib.Path("CHANGELOG.md").read_text(), re.M)[1]
NEWER = VERSION + "+newer"
PACKAGE = next(BUILD.absolute().glob("packages/zel_*.deb"), None)
PID_FILE = pathlib.Path("/var/run/zel.pid")
UNIT = "/lib/systemd/system/zel.service"
PACKAGES = ("zel", "zelctl", "python3-zel")
DPKG = ["dpkg", "--force-depends", "--force-confold", "--log=/tmp/dpkg.log"]  # this box knows no other package

pytestmark = pytest.mark.skipif(stage.SANITIZED, reason="the release is what is installed")


def init(action, status=0, tools=""):
    done = subprocess.run(["/etc/init.d/zel", action], capture_output=True, text=True, timeout=60,
                          env={**os.environ, "PATH": tools + os.environ["PATH"]})
    assert (done.returncode, bool(done.stderr)) == (status, status in (2, 5)), done
    return done.stdout


def pid():
    return int(PID_FILE.read_text())


def ended(process):
    return not os.path.lexists(f"/proc/{process}/exe")


def serves():
    wait_until(is_serving, "the agent serves")
    assert "getDeviceInformationResponse" in stage.call("getDeviceInformation")


def without_files():
    for path in (CONFIGURATION, OLD_CONFIGURATION, pathlib.Path("/config/wlan.mac")):
        path.unlink(missing_ok=True)


@pytest.fixture
def board():
    shutil.rmtree("/app/zel/protocols")
    output_of("cp", "-a", f"{BUILD}/tree/.", "/")
    without_files()
    yield
    output_of("/etc/init.d/zel", "stop")


@pytest.mark.parametrize("small", [True, False])
def test_the_init_script(board, small, tmp_path):
    for name in ("start-stop-daemon", "readlink", "sleep", "rm", "cp"):  # as a board has them
        (tmp_path / name).symlink_to("/bin/busybox")
    tools = f"{tmp_path}:" if small else ""
    assert init("status", 3, tools) == "zel does not run\n"
    assert init("stop", 0, tools) == "zel does not run\n"
    assert init("start", 0, tools) == f"zel started, process {pid()}\n"
    serves()
    assert CONFIGURATION.stat().st_mode & 0o777 == 0o600
    first = pid()
    assert init("start", 0, tools) == f"zel runs already, process {first}\n"
    # An update may have replaced the file.
    shutil.copy2("/app/zel/zel", "/app/zel/zel.new")
    os.rename("/app/zel/zel.new", "/app/zel/zel")
    assert init("status", 0, tools) == f"zel runs, process {first}\n"
    assert init("restart", 0, tools) == f"zel stopped\nzel started, process {pid()}\n"
    assert pid() != first and ended(first)
    os.kill(pid(), signal.SIGKILL)
    wait_until(lambda: ended(pid()), "it is gone")
    assert "left /var/run/zel.pid" in init("status", 1, tools)
    init("start", 0, tools)
    assert init("stop", 0, tools) == "zel stopped\n"
    assert not PID_FILE.exists() and not is_serving()
    assert init("nonsense", 2, tools) == ""


def test_a_board_starts_it_again(board):
    keeper = subprocess.Popen(["/etc/init.d/zel", "keep"], stdout=subprocess.DEVNULL)
    try:
        init("start")
        first = pid()
        os.kill(first, signal.SIGKILL)
        wait_until(lambda: pid() != first, "it is started again")
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
    OLD_CONFIGURATION.write_text("tavo.color=red\n")
    init("start")
    assert not CONFIGURATION.exists(), "the agent takes up the old file"
    init("stop")
    without_files()
    with stage.replaced("/app/zel/zel", None):
        init("start", 5)


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
TO_FILE = f"[Service]\nStandardOutput=append:{OUTPUT}\n"


def oldest(name):
    """The first process of that name; what it forks has the name, too, for a moment."""
    return subprocess.run(["pgrep", "-o", "-x", name], capture_output=True, text=True).stdout.strip()


@contextlib.contextmanager
def systemd():
    """A systemd that runs the unit of the package in this box, with all that the unit asks for: its systemctl, or what
    else is run beside it."""
    settings = pathlib.Path("/run/systemd/system/zel.service.d/output.conf")
    settings.parent.mkdir(parents=True)
    settings.write_text(TO_FILE)
    process = subprocess.Popen(["unshare", "--cgroup", "--mount", "sh", "-c", BOOT],
                               env={**os.environ, "GROUP": f"/sys/fs/cgroup/simbox-{uuid.uuid4()}"})
    wait_until(lambda: oldest("systemd") or process.poll(), "systemd runs")
    if process.returncode == 77:
        pytest.skip("an ordinary user may make no control groups")
    first = oldest("systemd")
    try:
        inside = ("nsenter", f"--target={first}", "--mount", "--pid")
        yield lambda *arguments, tool=("systemctl",): output_of(*inside, *tool, *arguments)
    finally:
        os.kill(int(first), signal.SIGKILL)
        process.wait(20)
        shutil.rmtree("/run/systemd")


def agent():
    """Its process, with what the unit lets it see and do."""
    return pathlib.Path("/proc", wait_until(lambda: oldest("Zel::main"), "the agent runs"))


def zelctl(*arguments):
    return output_of("/usr/bin/zelctl", *arguments, network="client", timeout=120)


def shown(path):
    return stage.exchange(f"GET /web/show.jsp?file={path} HTTP/1.0\r\n\r\n".encode()).decode()


def state(systemctl):
    return systemctl("show", "--property=ActiveState,StatusText", "zel")


@pytest.fixture
def packages():
    for name in ("dpkg/info", "dpkg/updates", "dpkg/triggers", "avahi-autoipd"):  # the last comes with that package
        pathlib.Path("/var/lib", name).mkdir(parents=True, exist_ok=True)
    pathlib.Path("/var/lib/dpkg/status").touch()
    shutil.rmtree("/app/zel", ignore_errors=True)
    without_files()
    output_of(*DPKG, "--install", *BUILD.glob("packages/*.deb"))
    yield
    output_of(*DPKG, "--purge", *PACKAGES)


@pytest.fixture
def newer(tmp_path):
    """The package of a later version, with other default settings and another description."""
    tree = tmp_path / "zel"
    output_of("dpkg-deb", "--raw-extract", PACKAGE, tree)
    control = tree / "DEBIAN/control"
    control.write_text(control.read_text().replace(f"Version: {VERSION}\n", f"Version: {NEWER}\n"))
    for changed in ("agent.configuration", "protocols/beans.xsd"):
        with open(tree / "app/zel" / changed, "a") as file:
            file.write("\n")
    return output_of("dpkg-deb", "--build", tree, tmp_path) and tmp_path / PACKAGE.name.replace(VERSION, NEWER)


def test_the_packages(packages, newer):
    assert VERSION in zelctl("--version").split()
    assert "/usr/lib/python3/" in output_of("/usr/bin/python3", "-c", "import zel; print(zel.find_one, zel)", cwd="/")
    output_of("lintian", "--allow-root", "--fail-on=error,warning", *BUILD.glob("packages/*.deb"))
    assert not oldest("Zel::main"), "not before it is enabled"
    assert CONFIGURATION.stat().st_mode & 0o777 == 0o600
    verified = subprocess.run(["systemd-analyze", "verify", UNIT], capture_output=True, text=True, timeout=60)
    assert (verified.returncode, verified.stdout + verified.stderr) == (0, "")
    exposure = output_of("systemd-analyze", "security", "--offline=true", UNIT)
    assert float(re.search(r"Overall exposure level .*: ([\d.]+)", exposure)[1]) <= 3.9

    # Settings, and the defaults that a site has changed, are kept by all but a purge.
    defaults = pathlib.Path("/app/zel/agent.configuration")
    CONFIGURATION.write_text(stage.BASE)
    for site in ("", "tavo.color=red\n"):
        defaults.write_text(defaults.read_text() + site)
        output_of(*DPKG, "--install", newer)
        assert defaults.read_text().endswith(site or "\n\n")
        output_of(*DPKG, "--install", PACKAGE)
        output_of(*DPKG, "--remove", "zel")
        assert not os.path.exists("/app/zel/zel")
        output_of(*DPKG, "--install", PACKAGE)
        assert CONFIGURATION.read_text() == stage.BASE and defaults.read_text().endswith("Stream\n" + site)
    for left in ("/config/keypass", "/app/zel/images/application.bin"):
        pathlib.Path(left).write_text("secret\n")
    output_of(*DPKG, "--purge", *PACKAGES)
    assert not list(filter(os.path.exists, ("/config", "/app/zel", "/usr/bin/zelctl", UNIT)))


def test_the_unit(packages):
    CONFIGURATION.write_text(stage.SIGNING_IN)
    with stage.Manager("application-update") as manager, systemd() as systemctl:
        log = agent() / "root/tmp/log/nativezel.log"
        wait_until(lambda: re.match("StatusText=Starting: .+\nActiveState=activating\n$", state(systemctl)),
                   "systemd knows why not yet")
        wait_until(lambda: "* SignIn succeed" in log.read_text(), "it has signed in", 120)
        assert manager.problems() == [] and "Rebooting after update" in log.read_text()
        assert (stage.IMAGES / "application/state").read_text() == "clean\n"
        serves()
        wait_until(lambda: state(systemctl) == "StatusText=Serving\nActiveState=active\n", "systemd knows it serves")
        assert f"* ZEL {VERSION} " in log.read_text()
        assert "Seccomp:\t2" in (agent() / "status").read_text()
        # Every kind of address, with what each tool needs.
        zelctl("mode", BOX, "linklocal")
        found = wait_until(lambda: re.search(r"^169\.254\.\S+", zelctl("find", "--wait", "2"), re.M),
                           "a link-local address", 90)
        zelctl("mode", found[0], "dhcp")
        wait_until(lambda: BOX in zelctl("find", "--wait", "2"), "an address by DHCP", 90)
        assert pathlib.Path("/config/wlan.mac").exists(), "it may write there"
        # What strangers get to read: little, and nothing of the machine's /tmp.
        assert "root:" in shown("/tmp/../etc/passwd")
        assert "FILE NOT FOUND" in shown("/tmp/../etc/shadow") and "FILE NOT FOUND" in shown("/tmp/dpkg.log")
        assert "starting on TAVO" in zelctl("log")

        zelctl("reserve", BOX, "--owner", "me")
        assert rules()
        first = agent()
        os.kill(int(first.name), signal.SIGKILL)
        wait_until(lambda: agent() != first, "it is started again")
        serves()
        assert rules() == []
        systemctl("stop", "zel")
        assert "Result=success" in systemctl("show", "zel")
        assert not re.search("denied|not permitted|Read-only", OUTPUT.read_text()), OUTPUT.read_text()


def test_an_upgrade_starts_only_a_free_box_again(packages, newer):
    def install(package):
        return systemctl("--install", package, tool=("sh", "-c", '"$@" 2>&1', "sh", *DPKG))

    def descriptions():
        return os.path.getsize("/app/zel/protocols/beans.xsd")

    policy, loopback = "/usr/sbin/policy-rc.d", ("INPUT", "-i", "lo", "-j", "DROP")
    CONFIGURATION.write_text(stage.ALONE)
    size = descriptions()
    with systemd() as systemctl, stage.replaced(policy, None):  # what a machine that makes images may have
        serves()
        first = agent()
        with stage.replaced(policy, "#!/bin/sh\nexit 101\n"):
            assert "forbids the restart" in install(newer) and agent() == first
        assert f"it is started again with version {VERSION}\n" in install(PACKAGE)
        wait_until(lambda: agent() != first, "it is started again")
        wait_until(is_serving, "it serves")
        zelctl("reserve", BOX, "--owner", "me")
        owned = agent()
        assert "when it is free: systemctl restart zel" in install(newer) and descriptions() != size
        output_of("iptables", "-I", *loopback)  # no answer is none that it is free
        assert "when it is free: systemctl restart zel" in install(PACKAGE) and descriptions() == size
        output_of("iptables", "-D", *loopback)
        assert agent() == owned and rules(), "its owner keeps it"
        zelctl("release")
        # One that does not serve yet has no owner, and nobody waits for its cable.
        stage.network("cable", "out")
        install(newer)
        wait_until(lambda: agent() != owned and "bringing up" in state(systemctl), "it waits for its cable")
        waiting = agent()
        assert "it is started again" in install(PACKAGE)
        wait_until(lambda: agent() != waiting, "it is started again")
        stage.network("cable", "in")
        serves()
        # Who has stopped it wants it stopped.
        systemctl("stop", "zel")
        assert "started" not in install(newer) and not oldest("Zel::main")
        systemctl("start", "zel")
        systemctl("--remove", "zel", tool=DPKG)
        assert not oldest("Zel::main")
