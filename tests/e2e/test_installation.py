"""The board's tree with its init script, and the Debian packages: installed in a fresh box, and used there."""

import os
import pathlib
import re
import shutil
import signal
import subprocess
import time

import pytest

import box

BUILD = pathlib.Path("build/release")
PID_FILE = pathlib.Path("/var/run/zel.pid")
OLD_SETTINGS = pathlib.Path("/config/agent.configuration.old")
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


def unit(key):
    """All that the unit file says about this."""
    text = pathlib.Path("/lib/systemd/system/zel.service").read_text()
    return " ".join(re.findall(rf"^{key}=(.*)", text, re.M)).split()


def restricted(output):
    """The agent with the unit's capabilities, and with its view of the files."""
    script = ["set -e", "mount --make-rprivate /", "mount -t tmpfs -o mode=1777 private /tmp",
              "mount -t tmpfs -o mode=0 private /root"]
    for path in unit("ReadWritePaths"):
        path = path.lstrip("-")
        script.append(f"[ ! -e {path} ] || mount --bind {path} {path}")
    for path in unit("InaccessiblePaths"):
        path = path.lstrip("-")
        script += [f"if [ -d {path} ]; then mount -t tmpfs -o ro,mode=0 private {path}",
                   f"elif [ -e {path} ]; then mount --bind /dev/null {path}; fi"]
    script += ["for path in / /usr /etc; do mount -o remount,bind,ro $path; done",
               f"exec setpriv --no-new-privs --inh-caps=-all --bounding-set={capabilities()} {unit('ExecStart')[0]}"]
    return subprocess.Popen(["unshare", "--mount", "sh", "-c", "\n".join(script)], cwd="/",
                            stdout=output, stderr=subprocess.STDOUT)


def capabilities():
    return ",".join(["-all", *("+" + name.removeprefix("CAP_").lower() for name in unit("CapabilityBoundingSet"))])


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
    shutil.rmtree("/app/zel")
    without_files()
    subprocess.run([*DPKG, "--install", *BUILD.glob("packages/*.deb")], check=True)


def test_the_packages(packages, tmp_path):
    assert subprocess.run(["pgrep", "-x", "Zel::main"]).returncode == 1, "not before it is enabled"
    assert box.CONFIGURATION.stat().st_mode & 0o777 == 0o600
    verified = subprocess.run(["systemd-analyze", "verify", "/lib/systemd/system/zel.service"],
                              capture_output=True, text=True, timeout=60)
    assert (verified.returncode, verified.stdout + verified.stderr) == (0, "")

    output = tmp_path / "output"
    with output.open("w") as file:
        agent = restricted(file)
    try:
        serves()
        assert zelctl("reserve", box.BOX, "--owner", "me") and box.rules()
        zelctl("release")
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
    finally:
        agent.send_signal(signal.SIGTERM)
    assert agent.wait(20) == 0, output.read_text()
    assert not re.search("denied|not permitted|Read-only", output.read_text()), output.read_text()

    subprocess.run([*DPKG, "--remove", "zel"], check=True)
    assert box.CONFIGURATION.exists() and not os.path.exists("/app/zel/zel")
    pathlib.Path("/config/keypass").write_text("secret\n")
    subprocess.run([*DPKG, "--purge", "zel", "zelctl"], check=True)
    assert not os.path.exists("/config") and not os.path.exists("/usr/bin/zelctl")
